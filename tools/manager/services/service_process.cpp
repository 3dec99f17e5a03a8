// SPDX-License-Identifier: Apache-2.0
#include "manager/services/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstring>

#include "manager/base/error.h"
#include "manager/base/json.h"

namespace manager {

ServiceProcess::ServiceProcess(std::vector<std::string> command, Console& console,
                               std::function<void()> on_end) {
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) throw ManagerError("cannot make a pipe");
    output_ = FileDescriptor(pipe[0]);
    const FileDescriptor input(pipe[1]);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, pipe[1], STDOUT_FILENO);
    // Elsewhere it disturbs no prompt, and may be kept apart.
    if (isatty(STDERR_FILENO) != 0) {
        posix_spawn_file_actions_adddup2(&files, pipe[1], STDERR_FILENO);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // This program blocks signals, and Ctrl-C is meant for its commands.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int error =
        posix_spawnp(&pid_, arguments[0], &files, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        throw ManagerError("cannot start " + command.front() + ": " + std::strerror(error));
    }
    process_ = FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    thread_ = std::thread([this, &console, call = std::move(on_end)] { watch(console, call); });
}

void ServiceProcess::watch(Console& console, const std::function<void()>& on_end) {
    const auto show = [&](const std::string& line) {
        console.report(line, "output", "\"text\":" + json_text(line));
    };
    std::string text;
    std::array<char, 4096> chunk;
    // Its own children may hold the pipe open for longer than it lives.
    std::array<pollfd, 2> events{{{output_.get(), POLLIN, 0}, {process_.get(), POLLIN, 0}}};
    while (poll(events.data(), events.size(), -1) >= 0 && events[0].revents != 0) {
        const ssize_t size = read(output_.get(), chunk.data(), chunk.size());
        if (size <= 0) break;
        text.append(chunk.data(), static_cast<std::size_t>(size));
        for (std::size_t end; (end = text.find('\n')) != std::string::npos;
             text.erase(0, end + 1)) {
            show(text.substr(0, end));
        }
    }
    if (!text.empty()) show(text);
    poll(&events[1], 1, -1);
    on_end();
}

int ServiceProcess::end() {
    if (!thread_.joinable()) return 0;
    pollfd ended{process_.get(), POLLIN, 0};
    const bool was_running = poll(&ended, 1, 0) == 0;
    if (was_running) kill(pid_, SIGTERM);
    if (was_running && poll(&ended, 1, 5000) == 0) kill(pid_, SIGKILL);
    thread_.join();
    int status = 0;
    waitpid(pid_, &status, 0);
    if (was_running) return 0;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace manager
