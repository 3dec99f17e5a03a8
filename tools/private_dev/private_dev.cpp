// SPDX-License-Identifier: Apache-2.0
// vexon-private-dev: runs a command that sees a /dev of its own, with an empty /dev/socket in it.
//
// The Manager's socket has a fixed path below /dev. With a private /dev every test run and every
// developer gets that path without privileges and without meeting another run.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int kOwnFailure = 125;
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

constexpr char kUsage[] =
    "Usage: vexon-private-dev [--join PID] COMMAND [ARG...]\n"
    "Run COMMAND with a private /dev that holds an empty /dev/socket and /dev/socket/vexon_one.\n"
    "\n"
    "The private /dev has null, zero, full, random, urandom, tty, pts, ptmx, shm, fd, stdin,\n"
    "stdout and stderr. It belongs to COMMAND and its children and vanishes with them; the /dev\n"
    "of the system is not changed. An ordinary user needs user namespaces to be enabled.\n"
    "\n"
    "  --join PID  enter the private /dev of the process PID, instead of making one\n"
    "  -h, --help  print this text\n"
    "\n"
    "Exit status:\n"
    "  125  the private /dev could not be made or entered, or the command line is wrong\n"
    "  126  COMMAND was found but could not be executed\n"
    "  127  COMMAND was not found\n"
    "  else the exit status of COMMAND\n";

/// Throws the system error in errno, described by `what`, if `failed`.
void check(bool failed, const std::string& what) {
    if (failed) throw std::system_error(errno, std::generic_category(), what);
}

void write_file(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    check(file < 0, "cannot open " + path);
    const ssize_t written = write(file, text.data(), text.size());
    const int write_error = errno;
    close(file);
    errno = write_error;
    check(written != static_cast<ssize_t>(text.size()), "cannot write " + path);
}

/// Maps an id of the new user namespace to the same id outside, so that the command keeps its own.
void map_own_id(const std::string& map_file, unsigned id) {
    write_file(map_file, std::to_string(id) + " " + std::to_string(id) + " 1\n");
}

void enter_user_and_mount_namespace() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    check(unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0,
          "cannot make a user and mount namespace (are user namespaces enabled?)");
    // The kernel takes a group map from an ordinary user only once setgroups() is denied.
    write_file("/proc/self/setgroups", "deny");
    map_own_id("/proc/self/uid_map", user);
    map_own_id("/proc/self/gid_map", group);
}

void enter_mount_namespace() {
    if (unshare(CLONE_NEWNS) != 0) {
        check(errno != EPERM, "cannot make a mount namespace");
        enter_user_and_mount_namespace();
    }
    // Otherwise the mounts below would propagate to the system's own /dev.
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0,
          "cannot make the mounts private");
}

/// An old device node, held open so that it can be reached after its directory is covered.
struct DeviceNode {
    std::string path;
    int handle;
};

std::vector<DeviceNode> open_device_nodes() {
    std::vector<DeviceNode> nodes;
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string path = std::string("/dev/") + name;
        const int handle = open(path.c_str(), O_PATH | O_CLOEXEC);
        check(handle < 0, "cannot open " + path);
        nodes.push_back({path, handle});
    }
    return nodes;
}

void bind_device_node(const DeviceNode& node) {
    const int target = open(node.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    check(target < 0, "cannot create the private " + node.path);
    close(target);
    const std::string source = "/proc/self/fd/" + std::to_string(node.handle);
    check(mount(source.c_str(), node.path.c_str(), nullptr, MS_BIND, nullptr) != 0,
          "cannot bind " + node.path);
    close(node.handle);
}

void make_directory(const std::string& path, mode_t mode) {
    check(mkdir(path.c_str(), mode) != 0, "cannot create the private " + path);
    check(chmod(path.c_str(), mode) != 0, "cannot set the mode of the private " + path);
}

void make_link(const std::string& target, const std::string& path) {
    check(symlink(target.c_str(), path.c_str()) != 0, "cannot create the private " + path);
}

/// Mounts pseudo-terminals of their own: a bound ptmx would look for its pts beside the old one.
void mount_pseudo_terminals() {
    make_directory("/dev/pts", 0755);
    check(mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                "newinstance,ptmxmode=0666,mode=0620") != 0,
          "cannot mount the private /dev/pts");
    make_link("pts/ptmx", "/dev/ptmx");
}

void cover_dev() {
    const std::vector<DeviceNode> nodes = open_device_nodes();
    check(mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755") != 0,
          "cannot mount the private /dev");
    for (const DeviceNode& node : nodes) bind_device_node(node);
    mount_pseudo_terminals();
    make_directory("/dev/shm", 01777);
    make_directory("/dev/socket", 0755);
    make_directory("/dev/socket/vexon_one", 0755);
    make_link("/proc/self/fd", "/dev/fd");
    make_link("/proc/self/fd/0", "/dev/stdin");
    make_link("/proc/self/fd/1", "/dev/stdout");
    make_link("/proc/self/fd/2", "/dev/stderr");
}

/// Whether two paths lead to the same namespace.
bool is_same(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    check(stat(one.c_str(), &first) != 0, "cannot find " + one);
    check(stat(other.c_str(), &second) != 0, "cannot find " + other);
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

int open_namespace(const std::string& path) {
    const int handle = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    check(handle < 0, "cannot open " + path);
    return handle;
}

/// Enters the mount namespace of a process, and its user namespace, if it has another, on the way.
void join(const std::string& process) {
    const std::string folder = "/proc/" + process + "/ns/";
    std::string directory = ".";
    if (char* const current = getcwd(nullptr, 0)) {
        directory = current;
        free(current);
    }
    const int mounts = open_namespace(folder + "mnt");
    if (!is_same(folder + "user", "/proc/self/ns/user")) {
        const int users = open_namespace(folder + "user");
        check(setns(users, CLONE_NEWUSER) != 0, "cannot enter " + folder + "user");
        close(users);
    }
    check(setns(mounts, CLONE_NEWNS) != 0, "cannot enter " + folder + "mnt");
    close(mounts);
    // It is the root now.
    check(chdir(directory.c_str()) != 0, "cannot go back to " + directory);
}

/// Replaces this program by the command; returns only the exit status of a failure to do so.
int execute(char** command) {
    execvp(command[0], command);
    const int error = errno;
    std::fprintf(stderr, "vexon-private-dev: cannot execute %s: %s\n", command[0],
                 std::strerror(error));
    return error == ENOENT ? kNotFound : kCannotExecute;
}

int run(char** arguments) {
    const std::string first = *arguments != nullptr ? *arguments : "";
    if (first == "-h" || first == "--help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    const bool joins = first == "--join";
    if (joins && arguments[1] == nullptr) throw std::invalid_argument("PID is missing; see --help");
    char** command = joins ? arguments + 2 : arguments;
    const std::string next = *command != nullptr ? *command : "";
    if (next == "--") {
        ++command;
    } else if (next[0] == '-') {
        throw std::invalid_argument("unknown option " + next + "; see --help");
    }
    if (*command == nullptr) throw std::invalid_argument("COMMAND is missing; see --help");
    if (joins) {
        join(arguments[1]);
    } else {
        enter_mount_namespace();
        cover_dev();
    }
    return execute(command);
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 1) return kOwnFailure;
    return run(argv + 1);
} catch (const std::exception& error) {
    std::fprintf(stderr, "vexon-private-dev: %s\n", error.what());
    return kOwnFailure;
}
