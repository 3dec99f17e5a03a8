#include "driver/child.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace bench {
namespace {

int check(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

std::string beside_this_program(const std::string& name) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

[[noreturn]] void execute(std::vector<std::string>& command, int input) {
    std::vector<char*> words;
    for (std::string& word : command) words.push_back(word.data());
    words.push_back(nullptr);
    ::dup2(input, STDIN_FILENO);
    ::execvp(words[0], words.data());
    ::_exit(127);
}

}  // namespace

Child::Child(std::vector<std::string> command, const std::vector<std::string>& under) {
    command.front() = beside_this_program(command.front());
    command.insert(command.begin(), under.begin(), under.end());
    int ends[2];
    check(::pipe2(ends, O_CLOEXEC), "pipe");
    pid_ = check(::fork(), "fork");
    if (pid_ == 0) execute(command, ends[0]);
    ::close(ends[0]);
    input_ = ends[1];
    ::clock_getcpuclockid(pid_, &clock_);
}

Child::~Child() {
    ::close(input_);
    ::waitpid(pid_, nullptr, 0);
}

double Child::cpu_seconds() const {
    return seconds(clock_);
}

void Child::pin(int cpu) const {
    pin_process(pid_, cpu);
}

void pin_process(pid_t pid, int cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    const int last = static_cast<int>(::sysconf(_SC_NPROCESSORS_CONF)) - 1;
    for (int each = 0; each <= last; ++each) {
        if (cpu == -1 || cpu == each) CPU_SET(static_cast<std::size_t>(each), &cpus);
    }
    const std::string threads = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        ::sched_setaffinity(std::stoi(thread.path().filename()), sizeof cpus, &cpus);
    }
}

double seconds(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace bench
