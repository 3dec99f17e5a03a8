// SPDX-License-Identifier: Apache-2.0
#include "client/tasks/exec_task.h"

#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "client/link/life.h"
#include "client/params/add_params.h"
#include "client/params/queues.h"
#include "client/sessions/sessions.h"
#include "client/tasks/call_record.h"
#include "client/tasks/workers.h"
#include "client/utility/VexonTimer.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

std::uint32_t hexadecimal_opcode(const Json::Value& message, const char* missing) {
    const std::string text = text_member(message, "opcode", missing);
    return static_cast<std::uint32_t>(std::strtoull(text.c_str(), nullptr, 16));
}

// Returns whether the session may run tasks of the service; if not, a log line says why.
bool session_is_ready(std::uint32_t session_id, ServiceKey service) {
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    const auto session = gSessions.find(session_id);
    if (session == gSessions.end()) {
        log_line(kFailure, "Invalid session_id was passed to execute function %d",
                 static_cast<int>(session_id));
        return false;
    }
    const auto entry = session->second.find(service);
    if (entry == session->second.end()) {
        log_line(kFailure, "No Session %u with 0x%08x::%u", session_id, service.first,
                 service.second);
        return false;
    }
    if (entry->second != VEXA_SESSION_READY) {
        log_line(kFailure, "Session %u with 0x%08x::%u not ready", session_id, service.first,
                 service.second);
        return false;
    }
    return true;
}

// From here on the task owns the call and its arguments.
void start(CallRecord call, vexon_exec_callback_t function, vexon_func_call_info_t args) {
    const vexon_func_call_info_t queues = queues_of(args);
    try {
        start_task({std::move(call), function, std::move(args), life_of_thread()});
    } catch (...) {
        ClearParamsFromQueues(queues);
        throw;
    }
}

}  // namespace

int handle_exec_task(const Json::Value& request, vexon_exec_callback_t task) {
    const ServiceKey service{hexadecimal_opcode(request, "0x0"),
                             uint_member(request, "subsys_id", 0)};
    const std::uint32_t session_id = uint_member(request, "session_id", 0);
    const std::uint32_t transaction_id = read_transaction_id(request);
    MillisecondTimer timer('m', session_id, transaction_id);
    if (!session_is_ready(session_id, service)) return -1;

    CallRecord call = make_call_record();
    if (call == nullptr) {
        log_line(kFailure, "Out of memory");
        return -1;
    }
    call->session_id = session_id;
    call->subsys_id = service.second;
    call->transac_id = static_cast<std::int32_t>(transaction_id);

    vexon_func_call_info_t args{};
    if (AddParamsToQueues(request, &args) != 0) {
        // The one deliberate leak: a rejected call and what was decoded of it are not released.
        static_cast<void>(call.release());
        return -1;
    }
    start(std::move(call), task, std::move(args));
    timer.stop("KRV handleExecTask time taken from VEXON mgr to MIRT");
    return 0;
}

AfterMessage on_exec_task(const Json::Value& message) {
    const std::uint32_t opcode = hexadecimal_opcode(message, "0");
    std::lock_guard<std::mutex> lock(gReadyMutex);
    if (superseded()) return AfterMessage::kEndThread;
    const auto service = gReady.find(opcode);
    const vexon_exec_callback_t task =
        service == gReady.end() ? nullptr : service->second.exec_callback;
    if (task == nullptr || handle_exec_task(message, task) != 0) {
        log_line(kFailure, "Failed to handle execute task event");
    }
    return AfterMessage::kClearBuffer;
}
