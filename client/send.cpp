#include <sys/socket.h>

#include <cstring>
#include <mutex>

#include "client/IVexaClient.h"
#include "client/logging.h"

namespace {
constexpr int kLoggedLength = 2500;
}

int vexa_send_to_manager_raw(const char* msg) {
    if (msg == nullptr) {
        log_line(kAlways, "client NOT able to send msg");
        return -1;
    }
    log_line(kAlways, "client Sending message %.*s", kLoggedLength, msg);
    std::lock_guard<std::mutex> lock(gSendMutex);
    if (::sendto(gMgrSocket_fd, msg, std::strlen(msg), 0, nullptr, 0) == -1) {
        log_line(kAlways, "client NOT able to send msg");
        return -1;
    }
    return 0;
}
