#include "manager/simulation/packet_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace manager {
namespace {

constexpr int kSendBufferBytes = 1024 * 1024;
// What the kernel keeps of a send buffer when it judges whether a packet fits.
constexpr int kSendBufferReserve = 32;

void raise_send_buffer(int connection) {
    const int bytes = kSendBufferBytes;
    if (setsockopt(connection, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) == 0) return;
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

bool is_closed_by_peer(int connection) {
    pollfd state{connection, POLLRDHUP, 0};
    return poll(&state, 1, 0) > 0;
}

}  // namespace

FileDescriptor accept_connection(int listener) {
    FileDescriptor connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection.valid()) raise_send_buffer(connection.get());
    return connection;
}

SendResult send_packet(int connection, const std::string& text) {
    if (send(connection, text.data(), text.size(), MSG_NOSIGNAL) >= 0) return SendResult::Sent;
    // The kernel lacks memory now and then for a large packet, which need not be lost for that.
    const bool may_retry = errno == EAGAIN || errno == ENOBUFS || errno == EINTR;
    return may_retry ? SendResult::WouldBlock : SendResult::Closed;
}

void end_connection(int socket) {
    shutdown(socket, SHUT_RDWR);
}

std::size_t max_packet_size(int connection) {
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    getsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, &size);
    return static_cast<std::size_t>(bytes - kSendBufferReserve);
}

Received receive_packet(int connection) {
    const ssize_t size = recv(connection, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0) {
        // A peer that closed without reading everything is reported once by ECONNRESET, before
        // the packets it sent last; the end of those is reported by size 0.
        const bool more_to_come = errno == EAGAIN || errno == EINTR || errno == ECONNRESET;
        return {more_to_come ? Received::Kind::Nothing : Received::Kind::Closed, {}};
    }
    if (size == 0 && is_closed_by_peer(connection)) return {Received::Kind::Closed, {}};
    std::string text(static_cast<std::size_t>(size), '\0');
    if (recv(connection, text.data(), text.size(), 0) != size) return {Received::Kind::Nothing, {}};
    return {Received::Kind::Packet, std::move(text)};
}

}  // namespace manager
