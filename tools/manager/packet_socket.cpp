#include "manager/packet_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "manager/error.h"

namespace manager {
namespace {

constexpr int kSendBufferBytes = 1024 * 1024;
// What the kernel keeps of a send buffer when it judges whether a packet fits.
constexpr int kSendBufferReserve = 32;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ManagerError("cannot listen at " + path + ": " + reason);
}

[[noreturn]] void fail(const std::string& path) {
    const bool no_directory = errno == ENOENT;
    const std::string reason = std::strerror(errno);
    fail(path,
         no_directory ? reason + " (vexon-private-dev runs a command with a /dev/socket)" : reason);
}

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        fail(path, "a socket's path has 1 to " + std::to_string(sizeof(address.sun_path) - 1) +
                       " characters");
    }
    path.copy(address.sun_path, path.size());
    return address;
}

template <typename Call>
int with_address(Call call, int socket, const sockaddr_un& address) {
    return call(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

/// Whether a process holds the socket at the address. A probe of another socket type is turned
/// down with a different error by a live socket than by a stale file, and is no client to either.
bool is_alive(const sockaddr_un& address) {
    const FileDescriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return with_address(connect, probe.get(), address) == 0 || errno != ECONNREFUSED;
}

void remove_stale_socket(const std::string& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode)) fail(path, "a file that is not a socket exists there");
    if (is_alive(address)) fail(path, "another Manager is listening there");
    if (unlink(path.c_str()) != 0) fail(path);
}

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

FileDescriptor listen_at(const std::string& path) {
    const sockaddr_un address = address_of(path);
    remove_stale_socket(path, address);
    FileDescriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.valid() || with_address(bind, listener.get(), address) != 0) fail(path);
    // Services may run as another user than the Manager.
    if (chmod(path.c_str(), 0666) != 0 || listen(listener.get(), SOMAXCONN) != 0) fail(path);
    return listener;
}

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
