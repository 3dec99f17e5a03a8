// SPDX-License-Identifier: Apache-2.0
#include "client/services/api_definition.h"

#include <cstdlib>
#include <cstring>

#include "client/IVexaClient.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

constexpr std::uint8_t kHeader[] = {0x01, 'V', 'E', 'X', 'O', 'N', 0x01};

// The header may be whole, cut short or absent: the version is the first byte that is not of it.
const std::uint8_t* skip_header(const std::uint8_t* blob) {
    for (const std::uint8_t expected : kHeader) {
        if (*blob != expected) break;
        ++blob;
    }
    return blob;
}

bool is_supported(std::uint8_t version) {
    if (version == VEXA_JSON_DEF_VER_ARR) return true;
    const std::string supported = std::to_string(VEXA_JSON_DEF_VER_ARR);
    log_line(kProgress, "Unsupported API definition (wanted %s; got %d)", supported.c_str(),
             version);
    return false;
}

void read_members(const Json::Value& root, ApiDefinition* definition) {
    const Json::Value& service = member(root, "Vexon");
    definition->opcode_text = text_member(service, "opcode", "0");
    definition->opcode =
        static_cast<std::uint32_t>(std::strtoull(definition->opcode_text.c_str(), nullptr, 16));
    for (const Json::Value& subsystem : member(service, "subsystems")) {
        definition->subsystems.push_back(uint_member(subsystem, "id", 0));
    }
}

// All members are read before anything is sent, so that a definition with a member of a wrong kind
// is refused as a whole.
bool parse_members(const char* text, ApiDefinition* definition, std::string* error) {
    try {
        Json::Value root;
        if (!JsonReader().parse(text, text + std::strlen(text), &root, error)) return false;
        read_members(root, definition);
        return true;
    } catch (const MalformedMessage& exception) {
        *error = exception.what();
        return false;
    }
}

}  // namespace

bool read_api_definition(const std::uint8_t* blob, std::uint32_t opcode,
                         ApiDefinition* definition) {
    const std::uint8_t* const version = skip_header(blob);
    if (!is_supported(*version)) return false;

    definition->json = reinterpret_cast<const char*>(version + 1);
    std::string error;
    if (parse_members(definition->json, definition, &error)) return true;
    log_line(kFailure, "Parsing of API definition failed!! (opcode 0x%08x)", opcode);
    log_line(kAlways, "  JSON failure %s", error.c_str());
    return false;
}
