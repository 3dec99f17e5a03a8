// SPDX-License-Identifier: Apache-2.0
#include "client/link/send.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "client/utility/logging.h"

namespace {

constexpr int kLoggedLength = 2500;

template <class Wanted>
int send_if(const char* msg, Wanted wanted) EXCLUDES(gSendMutex) {
    if (msg == nullptr) return log_not_sent();
    log_sending(msg);
    std::lock_guard<std::mutex> lock(gSendMutex);
    return wanted() && send_packet(gMgrSocket_fd, msg, 0) ? 0 : log_not_sent();
}

}  // namespace

int send_in_life(const char* msg, Life life) {
    return send_if(msg, [life] { return !is_over(life); });
}

int vexa_send_to_manager_raw(const char* msg) {
    return send_if(msg, [] { return true; });
}

bool send_packet(int fd, const char* msg, int flags) {
    ssize_t sent = 0;
    do {
        sent = ::sendto(fd, msg, std::strlen(msg), flags, nullptr, 0);
    } while (sent == -1 && errno == EINTR);
    return sent != -1;
}

void log_sending(const char* msg) {
    log_line(kAlways, "client Sending message %.*s", kLoggedLength, msg);
}

int log_not_sent() {
    log_line(kAlways, "client NOT able to send msg");
    return -1;
}
