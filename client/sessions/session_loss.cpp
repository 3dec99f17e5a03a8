// SPDX-License-Identifier: Apache-2.0
#include "client/sessions/session_loss.h"

#include <exception>
#include <map>
#include <mutex>

#include "client/link/life.h"
#include "client/utility/logging.h"

namespace {

using StateCallbacks = std::map<std::uint32_t, StateCallback>;

// Returns whether there is nobody to tell, with a line that says so.
bool nobody_is_ready(const StateCallbacks& callbacks) {
    if (callbacks.empty()) log_line(kProgress, "No sessions due to no ready opcodes.");
    return callbacks.empty();
}

// The service of the lowest opcode stands for the process.
int inform_first_service(const StateCallbacks& callbacks, vexa_status_t status)
    REQUIRES(gSessionsMutex) {
    const auto& [opcode, callback] = *callbacks.begin();
    return inform_session_state(0, opcode, 0, callback.function, callback.user_data, status);
}

// Takes all sessions out of the table, since a callback may let the next life fill it. An exception
// of a callback puts them back: nobody has been told of the rest.
class SessionsTaken {
  public:
    SessionsTaken() REQUIRES(gSessionsMutex) { sessions_.swap(gSessions); }
    ~SessionsTaken() REQUIRES(gSessionsMutex) {
        const bool failed = std::uncaught_exceptions() > exceptions_;
        if (failed && !sessions_were_unlocked()) gSessions.swap(sessions_);
    }
    SessionsTaken(const SessionsTaken&) = delete;
    SessionsTaken& operator=(const SessionsTaken&) = delete;

    const std::map<std::uint32_t, SessionServices>& sessions() const { return sessions_; }

  private:
    const int exceptions_ = std::uncaught_exceptions();
    std::map<std::uint32_t, SessionServices> sessions_;
};

}  // namespace

bool inform_session_ended(std::uint32_t session_id, ServiceKey service,
                          const StateCallback& callback, EndCounts* counts) {
    const auto [opcode, subsystem] = service;
    const bool agreed = inform_session_state(session_id, opcode, subsystem, callback.function,
                                             callback.user_data, VEXA_STATUS_SESSION_END) == 0;
    log_line(kProgress, "Session %u with 0x%08x::%u terminate %s", session_id, opcode, subsystem,
             agreed ? "success" : "failed");
    ++(agreed ? counts->ended : counts->failed);
    return agreed;
}

void log_ended(std::uint32_t session_id, const EndCounts& counts) {
    log_line(kProgress, "Ended session %u with %d service (%d failed)", session_id, counts.ended,
             counts.failed);
}

int terminate_sessions() {
    const LifeScope scope(life_of_thread());  // a service may call this on a thread of its own
    const StateCallbacks callbacks = all_state_callbacks();
    if (nobody_is_ready(callbacks)) return 0;

    EndCounts counts;
    std::uint32_t last_session = 0;
    {
        std::lock_guard<std::mutex> lock(gSessionsMutex);
        if (superseded()) return -1;
        const SessionsTaken taken;
        inform_first_service(callbacks, VEXA_STATUS_TERMINATED);
        for (const auto& [session_id, services] : taken.sessions()) {
            last_session = session_id;
            for (const auto& [service, state] : services) {
                const auto callback = callbacks.find(service.first);
                if (callback == callbacks.end()) continue;
                inform_session_ended(session_id, service, callback->second, &counts);
            }
        }
    }
    log_ended(last_session, counts);
    return counts.ended > 0 ? 0 : -1;
}

int send_reconnection_notification() {
    const LifeScope scope(life_of_thread());
    const StateCallbacks callbacks = all_state_callbacks();
    if (nobody_is_ready(callbacks)) return 0;
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    return inform_first_service(callbacks, VEXA_STATUS_RECONNECTED);
}
