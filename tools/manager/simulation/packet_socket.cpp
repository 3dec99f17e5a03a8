#include "manager/simulation/packet_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace manager {

FileDescriptor accept_connection(int listener) {
    FileDescriptor connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const int bytes = 1024 * 1024;
    // Only who has the privilege may go beyond the limit of the system.
    for (const int option : {SO_SNDBUF, SO_SNDBUFFORCE}) {
        setsockopt(connection.get(), SOL_SOCKET, option, &bytes, sizeof(bytes));
    }
    return connection;
}

std::size_t max_packet_size(int connection) {
    // What the kernel keeps of a send buffer when it judges whether a packet fits.
    constexpr int kReserve = 32;
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    getsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, &size);
    return static_cast<std::size_t>(bytes - kReserve);
}

bool receive_packet(int connection, std::optional<std::string>& packet) {
    const ssize_t size = recv(connection, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    // A peer that closed without reading everything is reported once by ECONNRESET, before the
    // packets it sent last; the end of those is reported by size 0.
    if (size < 0) return errno == EAGAIN || errno == EINTR || errno == ECONNRESET;
    pollfd state{connection, POLLRDHUP, 0};
    if (size == 0 && poll(&state, 1, 0) > 0) return false;
    std::string text(static_cast<std::size_t>(size), '\0');
    if (recv(connection, text.data(), text.size(), 0) == size) packet = std::move(text);
    return true;
}

}  // namespace manager
