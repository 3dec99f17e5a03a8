#include "client/readiness.h"

#include <mutex>
#include <string>

#include "client/auth_regs_redy.h"
#include "client/logging.h"
#include "client/receive.h"

namespace {

std::string ready_request(std::uint32_t service_id, std::uint32_t opcode) {
    std::string text = "{\"req_type\":\"REDY\",\"Service_Id\":";
    text += std::to_string(static_cast<std::int32_t>(service_id));
    text += " ,\"Opcode\":";
    text += std::to_string(opcode);
    text += "}";
    return text;
}

void forget_ready_service(std::uint32_t opcode, const ready_meta_data& service) {
    std::lock_guard<std::mutex> lock(gReadyMutex);
    const auto entry = gReady.find(opcode);
    if (entry != gReady.end() && entry->second.done == service.done) gReady.erase(entry);
}

}  // namespace

int check_service_id(std::uint32_t service_id) {
    const int own_id = current_service_id();
    if (own_id == -1) return -3;
    return static_cast<std::uint32_t>(own_id) == service_id ? 0 : -2;
}

int _vexa_svc_ready(std::uint32_t service_id, std::uint32_t opcode,
                    vexa_state_callback_t state_callback, void* user_data,
                    vexon_exec_callback_t exec_callback) {
    const std::string request = ready_request(service_id, opcode);
    if (const int refusal = check_service_id(service_id); refusal != 0) return refusal;
    if (refused_on_receive_thread(__func__)) return -1;

    auto service = make_waiter<ready_meta_data>();
    service.state_callback = state_callback;
    service.user_data = user_data;
    service.exec_callback = exec_callback;
    {
        std::lock_guard<std::mutex> lock(gReadyMutex);
        gReady.insert({opcode, service});
    }
    if (vexa_send_to_manager_raw(request.c_str()) == -1) return -1;

    if (await_acknowledgement(service, gReadyWaitMutex) >= 0) return 0;
    log_line(kFailure, "Failed to make service ready at manager; aborting");
    forget_ready_service(opcode, service);
    return -1;
}
