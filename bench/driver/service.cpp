// SPDX-License-Identifier: Apache-2.0
#include "driver/service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "manager/simulation/Manager.h"

namespace bench {
namespace {

constexpr int kPatienceMs = 60'000;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

[[noreturn]] void execute(std::vector<std::string> command, int input) {
    std::vector<char*> words;
    for (std::string& word : command) words.push_back(word.data());
    words.push_back(nullptr);
    ::dup2(input, STDIN_FILENO);
    ::execvp(words[0], words.data());
    ::_exit(127);
}

const manager::ListeningSocket& manager_listener() {
    static const manager::ListeningSocket listener(manager::kDefaultPath);
    return listener;
}

std::unique_ptr<Caller> make_library_caller(int) {
    pollfd waiting{manager_listener().get(), POLLIN, 0};
    if (::poll(&waiting, 1, kPatienceMs) != 1)
        throw std::runtime_error("the service does not connect");
    return make_packet_caller(manager_listener().accept(), PacketService::kLibrary);
}

template <PacketService kService>
std::unique_ptr<Caller> make_floor_caller(int input) {
    return make_packet_caller(manager::FileDescriptor(::fcntl(input, F_DUPFD_CLOEXEC, 0)),
                              kService);
}

}  // namespace

const std::vector<Contender>& contenders() {
    constexpr auto floor = make_floor_caller<PacketService::kFloor>;
    constexpr auto step = make_floor_caller<PacketService::kStepOfFloor>;
    static const std::vector<Contender> all = {
        {"library", "bench-service-library", false, SOCK_STREAM, make_library_caller},
        {"library, workers stay", "bench-service-library", false, SOCK_STREAM, make_library_caller},
        {kFloor, "bench-service-floor", false, SOCK_SEQPACKET, floor},
        {"floor, workers stay", "bench-service-floor", false, SOCK_SEQPACKET, floor},
        {"sd-bus", "bench-service-sd-bus", false, SOCK_STREAM, make_sd_bus_caller},
        {"gRPC", "bench-service-grpc", false, SOCK_STREAM, make_grpc_caller},
        {"echo", "bench-service-floor", true, SOCK_SEQPACKET, step},
        {"+ parse", "bench-service-floor", true, SOCK_SEQPACKET, step},
        {"+ thread", "bench-service-floor", true, SOCK_SEQPACKET, step},
    };
    return all;
}

Service::Service(const Contender& kind, const std::vector<std::string>& under) : contender(kind) {
    std::vector<std::string> command = under;
    command.push_back(
        std::filesystem::read_symlink("/proc/self/exe").replace_filename(kind.program));
    command.emplace_back(kind.name);
    int ends[2];
    if (::socketpair(AF_UNIX, kind.socket_type | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
    input = manager::FileDescriptor(ends[0]);
    const manager::FileDescriptor its_end(ends[1]);
    manager_listener();  // before the library looks for it
    pid = ::fork();
    if (pid < 0) fail("fork");
    if (pid == 0) execute(command, its_end.get());
    ::clock_getcpuclockid(pid, &cpu_clock);
    if (kind.make_caller != nullptr) caller = kind.make_caller(input.get());
}

Service::~Service() {
    caller.reset();
    input = {};
    ::waitpid(pid, nullptr, 0);
}

}  // namespace bench
