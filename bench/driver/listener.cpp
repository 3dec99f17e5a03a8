#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "driver/caller.h"

namespace bench {
namespace {

constexpr int kPatienceMs = 60'000;
constexpr int kBufferBytes = 1024 * 1024;

}  // namespace

Listener::Listener(const std::string& path, int type)
    : fd_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd_, 1) != 0) {
        throw CallFailed("cannot listen at " + path + ": " + std::strerror(errno));
    }
}

Listener::~Listener() {
    ::close(fd_);
}

int Listener::accept() const {
    pollfd waiting{fd_, POLLIN, 0};
    if (::poll(&waiting, 1, kPatienceMs) != 1) throw CallFailed("the service does not connect");
    const int connection = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    ::setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &kBufferBytes, sizeof(kBufferBytes));
    return connection;
}

}  // namespace bench
