// SPDX-License-Identifier: Apache-2.0
// _vexa_svc_register_auth(): registers a service and waits for the Manager's verdict ("AUTH").

#include <mutex>
#include <string>

#include "client/IVexaClient.h"
#include "client/link/life.h"
#include "client/link/send.h"
#include "client/services/acknowledgements.h"
#include "client/services/api_definition.h"
#include "client/services/supported_services.h"
#include "client/utility/logging.h"

namespace {

constexpr int kLoggedLength = 2500;

std::string auth_request(std::uint32_t service_id, std::uint32_t opcode, const char* api_def,
                         const char* token) {
    std::string text = "{\"req_type\":\"AUTH\",\"Service_Id\":";
    text += std::to_string(static_cast<std::int32_t>(service_id));
    text += ",\"Opcode\":";
    text += std::to_string(opcode);
    text += ",\"api_def\":";
    text += api_def;
    text += ",\"Token\":\"";
    text += token;
    text += "\"}";
    return text;
}

bool is_for_opcode(const ApiDefinition& definition, std::uint32_t opcode) {
    if (definition.opcode == opcode) return true;
    // Decimals stand behind the "0x": whoever reads the log by program counts on it.
    log_line(kFailure, "Mismatch opcode in registration %s (0x%08u) vs definition (0x%08u)",
             definition.opcode_text.c_str(), opcode, definition.opcode);
    return false;
}

void remove_waiter(std::uint32_t opcode, const RegsAuthMetaData& waiter) {
    std::lock_guard<std::mutex> lock(gAuthMutex);
    const auto entry = gAuth.find(opcode);
    if (entry != gAuth.end() && entry->second.done == waiter.done) gAuth.erase(entry);
}

// Puts the waiter where the acknowledgement finds it, unless one for the opcode is there already.
void add_waiter(std::uint32_t opcode, const RegsAuthMetaData& waiter, Life life) {
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        if (is_over(life) || gAuth.insert({opcode, waiter}).second) return;
    }
    log_line(kFailure, "Service 0x%08x is being registered already: this is not answered", opcode);
}

// Returns 0 when the Manager has accepted, else -1.
int authenticate(std::uint32_t opcode, const std::string& request, Life life) {
    const auto waiter = make_waiter<RegsAuthMetaData>();
    add_waiter(opcode, waiter, life);
    if (send_in_life(request.c_str(), life) == -1) {
        log_line(kFailure,
                 "VEXON service authenticate and registration failed to send to manager.");
        return -1;
    }
    const std::int32_t result = await_acknowledgement(waiter, gAuthWaits, life);
    remove_waiter(opcode, waiter);
    if (result < 0) {
        log_line(kFailure, "VEXON service auth registration failed.");
        return -1;
    }
    return 0;
}

}  // namespace

int _vexa_svc_register_auth(std::uint32_t service_id, std::uint32_t opcode,
                            const std::uint8_t* api_def, const char* token) {
    log_line(kProgress, "VEXON service register and authenticate");
    Life life = kNoLife;
    const int refusal = check_service_id(service_id, &life);
    if (refusal != -3 && api_def == nullptr) return -2;
    if (refusal != -3 && token == nullptr) {
        log_line(kFailure, "Service 0x%08x cannot be registered without a token", opcode);
        return -2;
    }
    if (refusal != 0) return refusal;
    if (refused_where_none_may_wait(__func__)) return -1;

    ApiDefinition definition{};
    if (!read_api_definition(api_def, opcode, &definition)) return -1;
    if (!is_for_opcode(definition, opcode)) return -2;
    log_line(kAlways, "json is %.*s", kLoggedLength, definition.json);

    if (authenticate(opcode, auth_request(service_id, opcode, definition.json, token), life) != 0) {
        return -1;
    }
    for (const std::uint32_t subsystem : definition.subsystems) {
        if (!add_supported_service({opcode, subsystem}, life)) return -1;
        log_line(kProgress, "Successfully authed and added 0x%08x::%u service mapping", opcode,
                 subsystem);
    }
    log_line(kProgress, "VEXON service authed and registered");
    return is_over(life) ? -1 : 0;
}

int _vexa_svc_register(std::uint32_t, std::uint32_t, const std::uint8_t*) {
    log_line(kAlways,
             "Error: The vexa_svc_register API is deprecated. Use the vexa_svc_register_auth API.");
    return -1;
}
