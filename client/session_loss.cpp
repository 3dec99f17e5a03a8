#include "client/session_loss.h"

#include <mutex>

#include "client/logging.h"

namespace {

// Tells the service of the lowest opcode, which stands for the process. Returns its answer, nothing
// if no service is ready.
std::optional<int> inform_first_service(vexa_status_t status) {
    const auto callbacks = all_state_callbacks();
    if (callbacks.empty()) {
        log_line(kProgress, "No sessions due to no ready opcodes.");
        return std::nullopt;
    }
    const auto& [opcode, callback] = *callbacks.begin();
    return inform_session_state(0, opcode, 0, callback.function, callback.user_data, status);
}

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
    if (!inform_first_service(VEXA_STATUS_TERMINATED)) return 0;

    const auto callbacks = all_state_callbacks();
    EndCounts counts;
    std::uint32_t last_session = 0;
    {
        std::lock_guard<std::mutex> lock(gSessionsMutex);
        for (const auto& [session_id, services] : gSessions) {
            last_session = session_id;
            for (const auto& [service, state] : services) {
                const auto callback = callbacks.find(service.first);
                if (callback == callbacks.end()) continue;
                inform_session_ended(session_id, service, callback->second, &counts);
            }
        }
        gSessions.clear();
    }
    log_ended(last_session, counts);
    return counts.ended > 0 ? 0 : -1;
}

int send_reconnection_notification() {
    return inform_first_service(VEXA_STATUS_RECONNECTED).value_or(0);
}
