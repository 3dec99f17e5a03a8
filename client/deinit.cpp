#include <mutex>
#include <string>
#include <utility>

#include "client/IVexaClient.h"
#include "client/auth_regs_redy.h"
#include "client/change_notices.h"
#include "client/logging.h"
#include "client/readiness.h"
#include "client/receive.h"

namespace {

// From here on the receive thread knows that the end of the connection is no loss of the Manager.
// Returns whether there was one that still read.
bool dismiss_receiver() {
    std::lock_guard<std::mutex> lock(gInitMutex);
    ++gReceiver;
    init_cv.notify_all();
    return std::exchange(gReceiving, false);
}

// A dismissed receive thread calls no callback of a session once the lock has been free.
void await_session_callback() {
    if (on_receive_thread()) return;  // inside such a callback
    std::lock_guard<std::mutex> lock(gSessionsMutex);
}

void drop_registrations() {
    std::lock_guard<std::mutex> lock(gAuthMutex);
    fail_waiters(gAuth, gAuthWaitMutex);
    gAuth.clear();
}

void take_leave(std::uint32_t service_id) {
    const std::string request = "{\"req_type\":\"DINT\",\"Service_Id\":" +
                                std::to_string(static_cast<std::int32_t>(service_id)) + "}";
    if (vexa_send_to_manager_raw(request.c_str()) < 0) {
        log_line(kFailure, "Failed to receive VEXON deinit ack; proceeding anyways");
    }
    disconnect_from_manager();
    gInitDone = false;
}

void forget_ready_services() {
    std::lock_guard<std::mutex> lock(gReadyMutex);
    fail_waiters(gReady, gReadyWaitMutex);
    gReady.clear();
}

void forget_service_id(std::uint32_t service_id) {
    std::lock_guard<std::mutex> lock(gClientMutex);
    gService_id = -1;
    log_line(kAlways, "gService_id is %d, svc_id is %d", gService_id,
             static_cast<std::int32_t>(service_id));
}

}  // namespace

int vexa_svc_deinit(std::uint32_t service_id) {
    if (const int refusal = check_service_id(service_id); refusal != 0) return refusal;
    if (refused_in_notice(__func__)) return -1;
    if (superseded()) return -3;  // it is another connection's process by now
    const bool was_receiving = dismiss_receiver();
    await_session_callback();
    drop_registrations();
    if (gInitDone || gIsOneService || was_receiving) take_leave(service_id);
    supported_services_clear();
    forget_ready_services();
    forget_service_id(service_id);
    return 0;
}
