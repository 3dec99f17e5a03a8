#include "client/connection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>

#include "client/logging.h"
#include "client/manager_address.h"

namespace {

constexpr std::chrono::seconds kReconnectLimit{20};
constexpr useconds_t kReconnectPauseUs = 50'000;

// Null is no connection. A socket must be connected: sends of other threads may meet it at once.
void adopt_socket(std::shared_ptr<ManagerSocket> socket) REQUIRES(gConnectMutex)
    EXCLUDES(gSendMutex) {
    std::lock_guard<std::mutex> lock(gSendMutex);
    gMgrSocket_fd = socket == nullptr ? -1 : socket->fd();
    gMgrSocket = std::move(socket);
}

// No send can be under way: a descriptor closed under it could come back as a file of somebody
// else's. The shutdown wakes the receive thread, which a plain close would not do; by then the
// thread must be able to see that this was no loss of the Manager.
void drop_socket() REQUIRES(gConnectMutex) EXCLUDES(gSendMutex) {
    std::lock_guard<std::mutex> lock(gSendMutex);
    gMgrSocket_fd = -1;
    if (gMgrSocket != nullptr) ::shutdown(gMgrSocket->fd(), SHUT_RDWR);
    gMgrSocket = nullptr;
}

int connect_socket() REQUIRES(gConnectMutex) EXCLUDES(gSendMutex) {
    adopt_socket(nullptr);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        log_line(kFailure, "Failed to connect to VEXON Manager (socket creation failed %s)",
                 std::strerror(errno));
        return -1;
    }

    auto socket = std::make_shared<ManagerSocket>(fd);
    const sockaddr_un address = manager_address(choose_manager_path());
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int connect_error = errno;
        socket = nullptr;
        log_line(kFailure, "Failed to connect to VEXON Manager (connection failed %s)",
                 std::strerror(connect_error));
        return -1;
    }
    adopt_socket(std::move(socket));
    log_line(kProgress, "Manager connection established, gMgrSocket_fd %d", fd);
    return 0;
}

int disconnect_socket() REQUIRES(gConnectMutex) EXCLUDES(gSendMutex) {
    if (gMgrSocket_fd < 0) return -1;
    if (vexa_send_to_manager_raw("EXIT") != 0) {
        log_line(kFailure, "Failed to disconnect to manager - proceeding anyways");
    }
    drop_socket();
    return 0;
}

// Connects again, trying until the time limit or until `wanted` says no.
template <class Wanted>
int reconnect_while(Wanted wanted) EXCLUDES(gConnectMutex, gSendMutex) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto try_once = [&wanted](bool* connected) {
        std::lock_guard<std::mutex> lock(gConnectMutex);
        if (!wanted()) return false;
        *connected = connect_socket() == 0;
        return true;
    };

    bool connected = false;
    while (true) {
        if (!try_once(&connected)) return -1;
        if (connected) break;
        if (Clock::now() > start + kReconnectLimit) {
            log_line(kAlways, "Failed to reconnect to manager due to time out");
            return -1;
        }
        ::usleep(kReconnectPauseUs);
    }
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    log_line(kAlways, "reconnected to manager, gMgrSocket_fd is %d, total time to reconnect %lld",
             gMgrSocket_fd.load(), static_cast<long long>(elapsed.count()));
    return 0;
}

}  // namespace

std::shared_ptr<ManagerSocket> current_connection() {
    std::lock_guard<std::mutex> lock(gSendMutex);
    return gMgrSocket;
}

int open_connection() {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return gMgrSocket_fd < 0 ? connect_socket() : 0;
}

bool close_lost_connection(const std::shared_ptr<ManagerSocket>& socket) {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return current_connection() == socket && disconnect_socket() == 0;
}

int reconnect_as(std::uint32_t receiver) {
    return reconnect_while([receiver] { return gReceiver == receiver; });
}

int connect_to_manager() {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return connect_socket();
}

int disconnect_from_manager() {
    std::lock_guard<std::mutex> lock(gConnectMutex);
    return disconnect_socket();
}

int reconnect_to_manager() {
    return reconnect_while([] { return true; });
}
