// SPDX-License-Identifier: Apache-2.0
#include "client/sessions/ready_session.h"

#include <mutex>

#include "client/link/life.h"
#include "client/sessions/sessions.h"
#include "client/utility/logging.h"

namespace {

void ready_service(std::uint32_t session_id, ServiceKey service, const StateCallback& callback,
                   int service_id) {
    const auto [opcode, subsystem] = service;
    log_line(kProgress, "Trying to ready session %u with 0x%08x::%u", session_id, opcode,
             subsystem);
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    if (superseded()) return;
    const SessionServices& services = gSessions[session_id];
    const auto entry = services.find(service);
    if (entry == services.end()) {
        log_line(kFailure, "Session %u with 0x%08x::%u not started before ready call", session_id,
                 opcode, subsystem);
        return;
    }
    if (entry->second == VEXA_SESSION_READY) {
        log_line(kFailure, "Session %u with 0x%08x::%u already in ready state", session_id, opcode,
                 subsystem);
        return;
    }
    call_state_callback(
        callback, service_id,
        make_state_request(VEXA_STATUS_SESSION_READY, opcode, subsystem, session_id));
    if (!superseded()) gSessions[session_id][service] = VEXA_SESSION_READY;
}

// Returns whether there was such a session.
bool handle_session_ready(const Json::Value& request) {
    std::uint32_t session_id = 0;
    if (!read_session_id(request, &session_id)) return false;
    log_line(kAlways, "session_id received is %u", session_id);
    if (!session_exists(session_id)) {
        log_line(kFailure, "Invalid session_id was passed to handle_session_ready %d",
                 static_cast<int>(session_id));
        return false;
    }

    const int service_id = current_service_id();
    for (const SessionTarget& target : read_session_targets(request)) {
        const auto callback = find_state_callback(target.opcode);
        if (!callback) continue;
        for (const std::uint32_t subsystem : target.subsystems) {
            ready_service(session_id, {target.opcode, subsystem}, *callback, service_id);
        }
    }
    return true;
}

}  // namespace

AfterMessage on_ready_session(const Json::Value& message) {
    if (!handle_session_ready(message)) log_line(kFailure, "Failed to handle session ready event");
    return AfterMessage::kClearBuffer;
}
