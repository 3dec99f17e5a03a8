// SPDX-License-Identifier: Apache-2.0
#include "client/link/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "client/link/life.h"
#include "client/link/manager_address.h"
#include "client/link/send.h"
#include "client/utility/logging.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kConnectLimit{20};
constexpr std::chrono::seconds kReconnectLimit{20};
// A thread that reconnects looks this often whether it is still wanted.
constexpr milliseconds kReconnectAttemptLimit{1000};
constexpr useconds_t kReconnectPauseUs = 50'000;
constexpr milliseconds kFarewellLimit{100};
constexpr useconds_t kFarewellPauseUs = 5'000;

milliseconds time_until(Clock::time_point deadline) {
    return std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
}

// Null is no connection. A socket must be connected: sends of other threads may meet it at once.
// The shutdown of the former one wakes those who send on it, and the receive thread, which a plain
// close would not do; by then that thread must be able to see that this was no loss of the Manager.
void replace_socket(std::shared_ptr<ManagerSocket> socket) REQUIRES(gConnectMutex)
    EXCLUDES(gSendMutex) {
    const int former = gMgrSocket_fd.exchange(-1);  // open until gMgrSocket lets go of it
    if (former >= 0) ::shutdown(former, SHUT_RDWR);
    std::lock_guard<std::mutex> lock(gSendMutex);
    gMgrSocket_fd = socket == nullptr ? -1 : socket->fd();
    gMgrSocket = std::move(socket);
}

void set_send_limit(int fd, milliseconds limit) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
    const std::chrono::microseconds rest = limit - seconds;
    const timeval time{static_cast<time_t>(seconds.count()),
                       static_cast<suseconds_t>(rest.count())};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

// Waits while the Manager's queue of connections is full. Returns 0 or the error, EAGAIN when the
// time is over.
int connect_until(int fd, const sockaddr_un& address, Clock::time_point deadline) {
    int error = EAGAIN;
    do {
        const milliseconds left = time_until(deadline);
        set_send_limit(fd, std::max(left, milliseconds(1)));  // 0 is no limit
        const auto* const name = reinterpret_cast<const sockaddr*>(&address);
        error = ::connect(fd, name, sizeof(address)) == 0 ? 0 : errno;
    } while (error == EINTR && Clock::now() < deadline);
    set_send_limit(fd, milliseconds(0));
    return error;
}

// Returns a connected socket, or null with a log line.
std::shared_ptr<ManagerSocket> make_connection(milliseconds limit) {
    auto socket = std::make_shared<ManagerSocket>();
    const int fd = socket->fd();
    if (fd < 0) {
        log_line(kFailure, "Failed to connect to VEXON Manager (socket creation failed %s)",
                 std::strerror(errno));
        return nullptr;
    }

    const sockaddr_un address = manager_address(choose_manager_path());
    if (const int error = connect_until(fd, address, Clock::now() + limit); error != 0) {
        socket = nullptr;
        log_line(kFailure, "Failed to connect to VEXON Manager (connection failed %s)",
                 std::strerror(error));
        return nullptr;
    }
    return socket;
}

// As above; missing memory is a failure like others.
std::shared_ptr<ManagerSocket> try_connection(milliseconds limit) {
    try {
        return make_connection(limit);
    } catch (const std::bad_alloc&) {
        log_line(kFailure, "Failed to connect to VEXON Manager (out of memory)");
        return nullptr;
    }
}

// Makes `socket` the connection if `wanted` does not say no. Returns whether it did.
template <class Wanted>
bool adopt(std::shared_ptr<ManagerSocket> socket, Wanted wanted)
    EXCLUDES(gConnectMutex, gSendMutex) {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    if (!wanted()) return false;
    replace_socket(std::move(socket));
    return true;
}

bool always() {
    return true;
}

int connect_anew() EXCLUDES(gConnectMutex, gSendMutex) {
    adopt(nullptr, always);
    auto socket = try_connection(kConnectLimit);
    if (socket == nullptr) return -1;
    const int fd = socket->fd();
    adopt(std::move(socket), always);
    log_line(kProgress, "Manager connection established, gMgrSocket_fd %d", fd);
    return 0;
}

// Returns whether the other end is open and, unless `unread` packets are allowed, nothing has come.
bool is_sound(int fd, bool unread) {
    pollfd state{fd, POLLRDHUP, 0};
    if (!unread) state.events |= POLLIN;
    return fd >= 0 && ::poll(&state, 1, 0) == 0;
}

int send_last(const char* msg) REQUIRES(gConnectMutex) {
    const auto deadline = Clock::now() + kFarewellLimit;
    log_sending(msg);
    while (!send_packet(gMgrSocket_fd, msg, MSG_DONTWAIT)) {
        if (errno != EAGAIN || Clock::now() > deadline) return log_not_sent();
        ::usleep(kFarewellPauseUs);
    }
    return 0;
}

int disconnect_socket() REQUIRES(gConnectMutex) EXCLUDES(gSendMutex) {
    if (gMgrSocket_fd < 0) return -1;
    if (send_last("EXIT") != 0) {
        log_line(kFailure, "Failed to disconnect to manager - proceeding anyways");
    }
    replace_socket(nullptr);
    return 0;
}

// Connects again, trying until the time limit or until `wanted` says no.
template <class Wanted>
Reconnection reconnect_while(Wanted wanted) EXCLUDES(gConnectMutex, gSendMutex) {
    const auto start = Clock::now();
    const auto deadline = start + kReconnectLimit;
    std::shared_ptr<ManagerSocket> socket;
    while (true) {
        if (!adopt(nullptr, wanted)) return Reconnection::kNotWanted;
        socket = try_connection(std::min(time_until(deadline), kReconnectAttemptLimit));
        if (socket != nullptr) break;
        if (Clock::now() > deadline) {
            log_line(kAlways, "Failed to reconnect to manager due to time out");
            return Reconnection::kTimedOut;
        }
        ::usleep(kReconnectPauseUs);
    }
    const int fd = socket->fd();
    if (!adopt(std::move(socket), wanted)) return Reconnection::kNotWanted;
    log_line(kProgress, "Manager connection established, gMgrSocket_fd %d", fd);
    const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    log_line(kAlways, "reconnected to manager, gMgrSocket_fd is %d, total time to reconnect %lld",
             fd, static_cast<long long>(elapsed.count()));
    return Reconnection::kDone;
}

}  // namespace

ManagerSocket::ManagerSocket() : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}

ManagerSocket::~ManagerSocket() {
    if (fd_ >= 0) ::close(fd_);
}

std::shared_ptr<ManagerSocket> current_connection() {
    std::lock_guard<std::mutex> lock(gSendMutex);
    return gMgrSocket;
}

bool is_connected() {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return is_sound(gMgrSocket_fd, true);
}

int open_connection() {
    {
        std::lock_guard<std::mutex> lock(gConnectMutex);
        if (is_sound(gMgrSocket_fd, false)) return 0;
    }
    return connect_anew();
}

int send_farewell(const char* msg) {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return send_last(msg);
}

void close_connection() {
    adopt(nullptr, always);
}

bool close_lost_connection(const std::shared_ptr<ManagerSocket>& socket) {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return gMgrSocket_fd == socket->fd() && disconnect_socket() == 0;
}

Reconnection reconnect_in(Life life) {
    return reconnect_while([life] { return !is_over(life); });
}

int connect_to_manager() {
    return connect_anew();
}

int disconnect_from_manager() {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return disconnect_socket();
}

int reconnect_to_manager() {
    return reconnect_while(always) == Reconnection::kDone ? 0 : -1;
}
