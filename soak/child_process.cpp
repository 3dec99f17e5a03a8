#include "child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace soak {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollPause = 5ms;

void check(bool failed, const std::string& what) {
    if (failed) throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
    manager::FileDescriptor read_end;
    manager::FileDescriptor write_end;
};

Pipe make_pipe() {
    int ends[2];
    check(::pipe2(ends, O_CLOEXEC) != 0, "cannot make a pipe");
    return {manager::FileDescriptor(ends[0]), manager::FileDescriptor(ends[1])};
}

// Returns the number behind `name` in a file of lines "name: number ...", 0 if there is none.
std::size_t number_in(const std::string& file, const std::string& name) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size(), name) == 0) return std::stoul(line.substr(name.size()));
    }
    return 0;
}

std::size_t entries_of(const std::string& directory) {
    std::error_code error;
    const std::filesystem::directory_iterator entries(directory, error);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, Handler on_record) {
    Pipe orders = make_pipe();
    Pipe records = make_pipe();
    errors_ = manager::FileDescriptor(::memfd_create("errors", MFD_CLOEXEC));
    check(!errors_.valid(), "cannot make a file");

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, orders.read_end.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, records.write_end.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors_.get(), STDERR_FILENO);
    // This process ignores the signal, but the other shall not owe its life to that.
    posix_spawnattr_t attributes;
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    errno = ::posix_spawn(&pid_, program.c_str(), &actions, &attributes, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    check(errno != 0, "cannot start " + program);

    orders_ = std::move(orders.write_end);
    records_ = std::move(records.read_end);
    reader_ = std::thread([this, on_record = std::move(on_record)] { read_records(on_record); });
}

ChildProcess::~ChildProcess() {
    if (!has_ended()) {
        kill();
        ::waitpid(pid_, nullptr, 0);
    }
    if (reader_.joinable()) reader_.join();
}

void ChildProcess::read_records(const Handler& on_record) const {
    Record record;
    // A pipe holds whole records only, as none is larger than PIPE_BUF.
    while (::read(records_.get(), &record, sizeof(record)) == sizeof(record)) on_record(record);
}

void ChildProcess::order(char letter) {
    // A process that has ended is noticed elsewhere.
    static_cast<void>(::write(orders_.get(), &letter, 1) == 1);
}

void ChildProcess::kill() const {
    ::kill(pid_, SIGKILL);
}

bool ChildProcess::has_ended() {
    int status = 0;
    if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    return status_.has_value();
}

std::optional<int> ChildProcess::await_end(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!has_ended()) {
        if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
        std::this_thread::sleep_for(kPollPause);
    }
    if (reader_.joinable()) reader_.join();
    return status_;
}

Usage ChildProcess::usage() const {
    const std::string directory = "/proc/" + std::to_string(pid_);
    return {number_in(directory + "/smaps_rollup", "Rss:"),
            number_in(directory + "/status", "Threads:"), entries_of(directory + "/fd")};
}

std::string ChildProcess::errors() const {
    std::string text(
        static_cast<std::size_t>(std::max<off_t>(::lseek(errors_.get(), 0, SEEK_END), 0)), '\0');
    const ssize_t size = ::pread(errors_.get(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

}  // namespace soak
