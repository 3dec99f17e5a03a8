#include <mutex>
#include <string>

#include "client/IVexaClient.h"
#include "client/api_definition.h"
#include "client/auth_regs_redy.h"
#include "client/logging.h"
#include "client/receive.h"

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
    // The "0x" stands before decimals here, as it always has.
    log_line(kFailure, "Mismatch opcode in registration %s (0x%08u) vs definition (0x%08u)",
             definition.opcode_text.c_str(), opcode, definition.opcode);
    return false;
}

void remove_waiter(std::uint32_t opcode, const RegsAuthMetaData& waiter) {
    std::lock_guard<std::mutex> lock(gAuthMutex);
    const auto entry = gAuth.find(opcode);
    if (entry != gAuth.end() && entry->second.done == waiter.done) gAuth.erase(entry);
}

// Returns 0 when the Manager has accepted, else -1.
int authenticate(std::uint32_t opcode, const std::string& request) {
    const auto waiter = make_waiter<RegsAuthMetaData>();
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        gAuth.insert({opcode, waiter});
    }
    if (vexa_send_to_manager_raw(request.c_str()) == -1) {
        log_line(kFailure,
                 "VEXON service authenticate and registration failed to send to manager.");
        return -1;
    }
    const std::int32_t result = await_acknowledgement(waiter, gAuthWaitMutex);
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
    const int own_id = current_service_id();
    if (own_id == -1) return -3;
    if (api_def == nullptr || token == nullptr) return -2;
    if (static_cast<std::uint32_t>(own_id) != service_id) return -2;
    if (refused_on_receive_thread(__func__)) return -1;

    ApiDefinition definition{};
    if (!read_api_definition(api_def, opcode, &definition)) return -1;
    if (!is_for_opcode(definition, opcode)) return -2;
    log_line(kAlways, "json is %.*s", kLoggedLength, definition.json);

    if (authenticate(opcode, auth_request(service_id, opcode, definition.json, token)) != 0) {
        return -1;
    }
    for (const std::uint32_t subsystem : definition.subsystems) {
        supported_services_add(opcode, subsystem);
        log_line(kProgress, "Successfully authed and added 0x%08x::%u service mapping", opcode,
                 subsystem);
    }
    log_line(kProgress, "VEXON service authed and registered");
    return 0;
}

int _vexa_svc_register(std::uint32_t, std::uint32_t, const std::uint8_t*) {
    log_line(kAlways,
             "Error: The vexa_svc_register API is deprecated. Use the vexa_svc_register_auth API.");
    return -1;
}
