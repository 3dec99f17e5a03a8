#include "services/until_told.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace bench {

int connect_to(const std::string& path, int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return fd;
}

void wait_until_told() {
    char byte;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

}  // namespace bench
