// SPDX-License-Identifier: Apache-2.0
#include "client/sessions/start_session.h"

#include <mutex>

#include "client/link/life.h"
#include "client/sessions/sessions.h"
#include "client/utility/VexonTimer.h"
#include "client/utility/logging.h"

namespace {

struct Outcome {
    int started = 0;
    int failed = 0;
    int duplicate = 0;
    std::map<std::uint32_t, std::vector<std::uint32_t>> started_services;
};

void create_session(std::uint32_t session_id) {
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    if (superseded() || gSessions.count(session_id) != 0) return;
    log_line(kProgress, "Trying to create new session %u", session_id);
    gSessions[session_id];
}

// Deals with a service that the session holds already. Returns whether it did.
bool already_started(std::uint32_t session_id, ServiceKey service, SessionServices* services,
                     Outcome* outcome) REQUIRES(gSessionsMutex) {
    const auto entry = services->find(service);
    if (entry == services->end()) return false;
    if (entry->second == VEXA_SESSION_READY) {
        log_line(kAnomaly, "Session %u with 0x%08x::%u already active", session_id, service.first,
                 service.second);
        ++outcome->duplicate;
        return true;
    }
    log_line(kAnomaly, "Session %u with 0x%08x::%u never received ready_session. Resetting",
             session_id, service.first, service.second);
    services->erase(entry);
    ++outcome->failed;
    return true;
}

void start_service(std::uint32_t session_id, ServiceKey service, const StateCallback& callback,
                   Outcome* outcome) {
    const auto [opcode, subsystem] = service;
    log_line(kProgress, "Trying to start session %u with 0x%08x::%u", session_id, opcode,
             subsystem);
    if (!is_service_supported(opcode, subsystem)) {
        log_line(kFailure, "Service does not support requested 0x%08x::%u", opcode, subsystem);
        ++outcome->failed;
        return;
    }
    const int service_id = current_service_id();

    std::lock_guard<std::mutex> lock(gSessionsMutex);
    if (superseded()) return;
    if (already_started(session_id, service, &gSessions[session_id], outcome)) return;
    const bool accepted = call_state_callback(callback, service_id,
                                              make_state_request(VEXA_STATUS_SESSION_START, opcode,
                                                                 subsystem, session_id)) == 0;
    if (!accepted || sessions_were_unlocked()) {
        log_line(kAnomaly, "Session %u with 0x%08x::%u failed", session_id, opcode, subsystem);
        ++outcome->failed;
        return;
    }
    gSessions[session_id][service] = VEXA_SESSION_STARTED;
    outcome->started_services[opcode].push_back(subsystem);
    ++outcome->started;
    log_line(kProgress, "Session %u with 0x%08x::%u success", session_id, opcode, subsystem);
}

void start_services(std::uint32_t session_id, const SessionTarget& target, Outcome* outcome) {
    const auto callback = find_state_callback(target.opcode);
    if (!callback) return;
    for (const std::uint32_t subsystem : target.subsystems) {
        start_service(session_id, {target.opcode, subsystem}, *callback, outcome);
    }
}

}  // namespace

int handle_session_start(const Json::Value& request) {
    std::uint32_t session_id = 0;
    if (!read_session_id(request, &session_id)) return -1;
    MillisecondTimer timer('m', session_id, read_transaction_id(request));
    const std::vector<SessionTarget> targets = read_session_targets(request);
    log_line(kAlways, "session_id received is %u", session_id);

    create_session(session_id);
    Outcome outcome;
    for (const SessionTarget& target : targets) start_services(session_id, target, &outcome);
    timer.stop("handle_session_start time taken");

    const bool success = outcome.started > 0;
    if (send_session_response(true, success, session_id, outcome.started_services) != 0) {
        log_line(kFailure, "Failed to send start session response to VEXON Manager");
    }
    log_line(kProgress, "Start session %u with %d service (%d failed; %d duplicate)", session_id,
             outcome.started, outcome.failed, outcome.duplicate);
    return success ? 0 : -1;
}

AfterMessage on_start_session(const Json::Value& message) {
    if (handle_session_start(message) != 0) {
        log_line(kFailure, "Failed to handle session start event");
    }
    return AfterMessage::kGrowBuffer;
}
