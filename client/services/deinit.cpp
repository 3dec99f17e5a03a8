// SPDX-License-Identifier: Apache-2.0
#include "client/services/deinit.h"

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <utility>

#include "client/link/connection.h"
#include "client/link/life.h"
#include "client/services/change_notices.h"
#include "client/sessions/sessions.h"
#include "client/tasks/workers.h"
#include "client/utility/logging.h"

namespace {

// Ends `life`, so that nothing that began in it acts any more, and has later calls wait for the end
// of this one. From here on the receive thread knows that the end of the connection is no loss of
// the Manager. Returns 0, or -3 if another call has ended the life, when that has finished.
int begin_leaving(Life life) NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(gClientMutex);
    if (superseded()) return -3;  // a callback, which the other call waits for
    if (is_over(life)) {
        const Life next = gLife;
        gLeft.wait(lock, [next]() NO_THREAD_SAFETY_ANALYSIS { return !gLeaving || is_over(next); });
        return -3;
    }
    gLeaving = true;
    ++gLife;
    return 0;
}

// Returns whether there was a receive thread that still read.
bool dismiss_receiver() EXCLUDES(gInitMutex) {
    std::lock_guard<std::mutex> lock(gInitMutex);
    init_cv.notify_all();
    return gReceiving.exchange(false);
}

void take_leave(std::uint32_t service_id) {
    char request[64];
    std::snprintf(request, sizeof request, "{\"req_type\":\"DINT\",\"Service_Id\":%" PRId32 "}",
                  static_cast<std::int32_t>(service_id));
    if (send_farewell(request) < 0) {
        log_line(kFailure, "Failed to receive VEXON deinit ack; proceeding anyways");
    }
    disconnect_from_manager();
    gInitDone = false;
}

void forget_service_id(std::uint32_t service_id) EXCLUDES(gClientMutex) {
    std::lock_guard<std::mutex> lock(gClientMutex);
    gService_id = -1;
    log_line(kAlways, "gService_id is %d, svc_id is %d", gService_id,
             static_cast<std::int32_t>(service_id));
    gLeaving = false;
    gLeft.notify_all();
}

}  // namespace

void forget_registrations() {
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        gAuth.clear();
    }
    std::lock_guard<std::mutex> lock(gReadyMutex);
    gReady.clear();
}

int vexa_svc_deinit(std::uint32_t service_id) {
    Life life = kNoLife;
    if (const int refusal = check_service_id(service_id, &life); refusal != 0) return refusal;
    if (refused_in_notice(__func__)) return -1;
    if (const int refusal = begin_leaving(life); refusal != 0) return refusal;
    const SessionsUnlocked unlocked;
    const bool was_receiving = dismiss_receiver();
    wake_waits();
    if (gInitDone || gIsOneService || was_receiving) take_leave(service_id);
    close_connection();  // the receive thread may have reconnected before it ended
    await_session_callback();
    forget_registrations();
    supported_services_clear();
    allow_idle_workers(0);
    forget_service_id(service_id);
    return 0;
}
