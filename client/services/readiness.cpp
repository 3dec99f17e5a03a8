// SPDX-License-Identifier: Apache-2.0
// _vexa_svc_ready(): declares a service ready and waits for the Manager's verdict ("REDY").

#include <mutex>
#include <string>

#include "client/IVexaClient.h"
#include "client/link/life.h"
#include "client/link/send.h"
#include "client/services/acknowledgements.h"
#include "client/utility/logging.h"

namespace {

std::string ready_request(std::uint32_t service_id, std::uint32_t opcode) {
    std::string text = "{\"req_type\":\"REDY\",\"Service_Id\":";
    text += std::to_string(static_cast<std::int32_t>(service_id));
    text += " ,\"Opcode\":";
    text += std::to_string(opcode);
    text += "}";
    return text;
}

void warn_of_missing_callbacks(std::uint32_t opcode, const ready_meta_data& service) {
    if (service.state_callback == nullptr) {
        log_line(kFailure, "Service 0x%08x has no state callback: its sessions are refused",
                 opcode);
    }
    if (service.exec_callback == nullptr) {
        log_line(kFailure, "Service 0x%08x has no exec callback: its tasks are refused", opcode);
    }
}

// Enters the service, unless one of the opcode is there already.
void enter_ready_service(std::uint32_t opcode, const ready_meta_data& service, Life life) {
    {
        std::lock_guard<std::mutex> lock(gReadyMutex);
        if (is_over(life) || gReady.insert({opcode, service}).second) return;
    }
    log_line(kFailure, "Service 0x%08x has been declared ready before: this is not answered",
             opcode);
}

void forget_ready_service(std::uint32_t opcode, const ready_meta_data& service) {
    std::lock_guard<std::mutex> lock(gReadyMutex);
    const auto entry = gReady.find(opcode);
    if (entry != gReady.end() && entry->second.done == service.done) gReady.erase(entry);
}

}  // namespace

int _vexa_svc_ready(std::uint32_t service_id, std::uint32_t opcode,
                    vexa_state_callback_t state_callback, void* user_data,
                    vexon_exec_callback_t exec_callback) {
    const std::string request = ready_request(service_id, opcode);
    Life life = kNoLife;
    if (const int refusal = check_service_id(service_id, &life); refusal != 0) return refusal;
    if (refused_where_none_may_wait(__func__)) return -1;

    auto service = make_waiter<ready_meta_data>();
    service.state_callback = state_callback;
    service.user_data = user_data;
    service.exec_callback = exec_callback;
    warn_of_missing_callbacks(opcode, service);
    enter_ready_service(opcode, service, life);
    if (send_in_life(request.c_str(), life) == -1) return -1;

    const std::int32_t result = await_acknowledgement(service, gReadyWaits, life);
    if (result >= 0 && !is_over(life)) return 0;
    log_line(kFailure, "Failed to make service ready at manager; aborting");
    forget_ready_service(opcode, service);
    return -1;
}
