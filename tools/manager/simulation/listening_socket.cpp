// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/listening_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "manager/base/error.h"

namespace manager {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw ManagerError("cannot listen at " + path + ": " + reason);
}

[[noreturn]] void fail(const std::string& path) {
    const char* const hint =
        errno == ENOENT ? " (vexon-private-dev runs a command with a /dev/socket)" : "";
    fail(path, std::strerror(errno) + std::string(hint));
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

/// Locked until it is closed. Whoever removes or makes a socket file holds the lock of its
/// directory: between the look at a stale file and its removal another Manager could replace it.
FileDescriptor lock_directory(const std::string& path) {
    const std::string parent = std::filesystem::path(path).parent_path();
    FileDescriptor directory(
        open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) flock(directory.get(), LOCK_EX);
    return directory;
}

/// The process that began to listen at the address, in words. To it this is a client that leaves at
/// once: only a connection tells who is at its other end.
std::string holder(const sockaddr_un& address) {
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM}) {
        const FileDescriptor probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        with_address(connect, probe.get(), address);
        ucred peer{};
        socklen_t size = sizeof(peer);
        getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
        // Not connected, or to a process of another pid namespace.
        if (peer.pid == 0) continue;
        std::string name;
        std::ifstream comm("/proc/" + std::to_string(peer.pid) + "/comm");
        std::getline(comm, name);
        return "process " + std::to_string(peer.pid) + (name.empty() ? "" : " (" + name + ")");
    }
    return "another process";
}

void remove_stale_socket(const std::string& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode)) fail(path, "a file that is not a socket exists there");
    // A probe of another socket type is turned down with a different error by a live socket than by
    // a stale file, and is no client to either.
    const FileDescriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool is_alive = with_address(connect, probe.get(), address) == 0 || errno != ECONNREFUSED;
    if (is_alive) fail(path, holder(address) + " is listening there");
    if (unlink(path.c_str()) != 0) fail(path);
}

}  // namespace

ListeningSocket::ListeningSocket(const std::string& path)
    : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), path_(path) {
    if (!socket_.valid()) fail(path);
    const sockaddr_un address = address_of(path);
    const FileDescriptor lock = lock_directory(path);
    remove_stale_socket(path, address);
    if (with_address(bind, socket_.get(), address) != 0) fail(path);
    struct stat status {};
    // Services may run as another user than the Manager.
    if (lstat(path.c_str(), &status) != 0 || chmod(path.c_str(), 0666) != 0 ||
        listen(socket_.get(), SOMAXCONN) != 0) {
        fail(path);
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

FileDescriptor ListeningSocket::accept() const {
    FileDescriptor connection(accept4(get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const int bytes = 1024 * 1024;
    // Only who has the privilege may go beyond the limit of the system.
    for (const int option : {SO_SNDBUF, SO_SNDBUFFORCE}) {
        setsockopt(connection.get(), SOL_SOCKET, option, &bytes, sizeof(bytes));
    }
    return connection;
}

void ListeningSocket::remove_file() const {
    const FileDescriptor lock = lock_directory(path_);
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0) return;
    if (status.st_dev == device_ && status.st_ino == inode_) unlink(path_.c_str());
}

}  // namespace manager
