// SPDX-License-Identifier: Apache-2.0
#include "client/receiving/init.h"

#include <cutils/properties.h>

#include <utility>

#include "client/link/connection.h"
#include "client/link/life.h"
#include "client/receiving/receive.h"
#include "client/services/deinit.h"
#include "client/sessions/sessions.h"
#include "client/tasks/workers.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"
#include "client/utility/threads.h"

namespace {

// Returns the service id that the process has already, with a line that says so, or -1. An id that
// is being given up counts no more, but a callback that de-initialisation waits for cannot wait.
int existing_service_id() NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(gClientMutex);
    if (!must_not_wait()) gLeft.wait(lock, []() NO_THREAD_SAFETY_ANALYSIS { return !gLeaving; });
    const int id = gService_id;
    lock.unlock();
    if (id != -1) log_line(kAlways, " Already initialized; return existing service id %d", id);
    return id;
}

// Begins a life unless one goes on whose receive thread still reads from the Manager. Returns
// whether it did. A thread that recovers an older connection, or has yet to see that it is lost,
// gives way.
bool begin_life() EXCLUDES(gInitMutex) {
    {
        std::lock_guard<std::mutex> init_lock(gInitMutex);
        if (gReceiving && is_connected()) return false;
        std::lock_guard<std::mutex> lock(gClientMutex);
        ++gLife;
        gReceiving = false;
    }
    wake_waits();
    await_session_callback();
    forget_registrations();  // no de-initialisation did if the Manager had taken the id back
    return true;
}

void start_receiving() REQUIRES(gInitMutex) {
    start_thread([life = gLife.load(), socket = current_connection()]() mutable {
        recv_msg_from_mgr(life, std::move(socket));
    });
    gReceiving = true;
}

// Takes the Manager's answer, or learns that none will come. Returns the service id.
int await_init_answer(std::unique_lock<std::mutex>& init_lock) NO_THREAD_SAFETY_ANALYSIS {
    const Life life = gLife;
    init_cv.wait(init_lock, [life]() NO_THREAD_SAFETY_ANALYSIS {
        return response_for_init || !gReceiving || is_over(life);
    });
    response_for_init = false;

    std::lock_guard<std::mutex> lock(gClientMutex);
    if (is_over(life) || gService_id < 0) {
        log_line(kFailure, "Failed to initialize with manager");
        return is_over(life) ? -1 : gService_id;
    }
    log_line(kProgress, "VEXON initialized; svc id %d", gService_id);
    return gService_id;
}

}  // namespace

int vexa_svc_init() NO_THREAD_SAFETY_ANALYSIS {
    log_line(kProgress, "VEXON service init");
    if (const int id = existing_service_id(); id != -1) return id;
    if (refused_where_none_may_wait(__func__)) return -1;

    std::lock_guard<std::mutex> call_lock(gInitCallMutex);
    if (const int id = existing_service_id(); id != -1) return id;  // another caller was quicker
    gDebugLevel = property_get_int32("persist.vendor.vexon.clientlib.debug_level", 4);
    allow_idle_workers(property_get_int32("persist.vendor.vexon.clientlib.idle_workers", 0));

    const bool needs_receiver = begin_life();
    if (needs_receiver && open_connection() != 0) return -1;
    // Held from before the thread starts, so that no answer can be signalled before the wait.
    std::unique_lock<std::mutex> init_lock(gInitMutex);
    if (needs_receiver) start_receiving();
    response_for_init = false;
    if (vexa_send_to_manager_raw("{\"req_type\":\"INIT\"}") != 0) {
        log_line(kFailure, "Failed to initiate communication with server");
        return -1;
    }
    return await_init_answer(init_lock);
}

AfterMessage on_init(const Json::Value& message) {
    const int id = int_member(message, "service_id", -1);
    {
        std::lock_guard<std::mutex> lock(gClientMutex);
        if (superseded()) return AfterMessage::kEndThread;
        gService_id = id;
    }
    std::lock_guard<std::mutex> lock(gInitMutex);
    if (superseded()) return AfterMessage::kEndThread;
    response_for_init = true;
    init_cv.notify_one();
    if (id < 0) {
        gReceiving = false;  // the next vexa_svc_init() must not count on this thread any more
        return AfterMessage::kEndThread;
    }
    gInitDone = true;
    return AfterMessage::kClearBuffer;
}
