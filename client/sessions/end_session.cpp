// SPDX-License-Identifier: Apache-2.0
#include "client/sessions/end_session.h"

#include <mutex>

#include "client/link/life.h"
#include "client/sessions/session_loss.h"
#include "client/sessions/sessions.h"
#include "client/utility/VexonTimer.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

void end_service(std::uint32_t session_id, ServiceKey service, const StateCallback& callback,
                 EndCounts* counts) {
    const auto [opcode, subsystem] = service;
    log_line(kProgress, "Trying to end session %u with 0x%08x::%u", session_id, opcode, subsystem);
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    if (superseded()) return;
    if (gSessions[session_id].count(service) == 0) {
        log_line(kAnomaly, "Session %u with 0x%08x::%u is not active; ignoring", session_id, opcode,
                 subsystem);
        ++counts->failed;
        return;
    }
    const bool agreed = inform_session_ended(session_id, service, callback, counts);
    if (agreed && !sessions_were_unlocked()) gSessions[session_id].erase(service);
}

// Returns false if the request has to be given up without a response.
bool end_named_services(std::uint32_t session_id, const Json::Value& opcodes, EndCounts* counts) {
    for (const Json::Value& element : opcodes) {
        const Json::Value& opcode = member(element, "id");
        if (!opcode.isUInt()) return false;
        const auto callback = find_state_callback(opcode.asUInt());
        if (!callback) continue;
        for (const Json::Value& subsystem : member(element, "subsystems")) {
            end_service(session_id, {opcode.asUInt(), uint_member(subsystem, "id", 0)}, *callback,
                        counts);
        }
    }
    return true;
}

void end_all_services(std::uint32_t session_id, EndCounts* counts) {
    const auto callbacks = all_state_callbacks();
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    // A service that has left the Manager meanwhile is told of the rest by terminate_sessions().
    while (!gSessions[session_id].empty() && !superseded()) {
        SessionServices& services = gSessions[session_id];
        const ServiceKey service = services.begin()->first;
        services.erase(services.begin());
        const auto callback = callbacks.find(service.first);
        if (callback == callbacks.end()) continue;
        const int refused = inform_session_state(
            session_id, service.first, service.second, callback->second.function,
            callback->second.user_data, VEXA_STATUS_SESSION_END);
        ++(refused == 0 ? counts->ended : counts->failed);
    }
}

void remove_if_empty(std::uint32_t session_id) {
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    const auto session = gSessions.find(session_id);
    if (session == gSessions.end() || !session->second.empty()) return;
    log_line(kProgress, "Session %u completely ended", session_id);
    gSessions.erase(session);
}

// Returns false if the request has to be given up without a response.
bool end_services(std::uint32_t session_id, const Json::Value& opcodes, EndCounts* counts) {
    if (!session_exists(session_id)) {
        log_line(kAnomaly, "Session %u is not active; ignoring", session_id);
        return true;
    }
    if (opcodes.empty()) {
        end_all_services(session_id, counts);
    } else if (!end_named_services(session_id, opcodes, counts)) {
        return false;
    }
    remove_if_empty(session_id);
    return true;
}

}  // namespace

int handle_session_end(const Json::Value& request) {
    const std::uint32_t session_id = uint_member(request, "session_id", 0);
    MillisecondTimer timer('m', session_id, read_transaction_id(request));
    EndCounts counts;
    if (!end_services(session_id, member(request, "opcodes"), &counts)) return -1;
    timer.stop("handle_session_end time taken");

    const bool success = counts.ended > 0;
    if (send_session_response(false, success, session_id, {}) != 0) {
        log_line(kFailure, "Failed to send end session response to VEXON Manager");
    }
    log_ended(session_id, counts);
    return success ? 0 : -1;
}

AfterMessage on_end_session(const Json::Value& message) {
    if (handle_session_end(message) != 0) log_line(kFailure, "Failed to handle end start event");
    return AfterMessage::kClearBuffer;
}
