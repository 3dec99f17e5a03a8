// The service process, watched from outside. Used by one thread, and started while it is the only
// one.

#pragma once

#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>

#include "contract.h"

namespace soak {

struct Usage {
    std::size_t memory_kib = 0;  // resident
    std::size_t threads = 0;
    std::size_t descriptors = 0;
};

class Process {
  public:
    explicit Process(const std::string& argument) {
        if (::ftruncate(memory_, sizeof(Shared)) != 0) std::perror("ftruncate");
        pid_ = ::fork();
        if (pid_ == 0) run(argument);
    }
    ~Process() {
        if (!has_ended()) ::kill(pid_, SIGKILL);
        if (!status_) ::waitpid(pid_, nullptr, 0);
        ::munmap(&shared, sizeof(Shared));
        ::close(memory_);
        std::fclose(errors_);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool has_ended() {
        int status = 0;
        if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
        return status_.has_value();
    }
    // What it should not have written or ended with.
    std::string complaint() const {
        std::string text(65536, '\0');
        std::rewind(errors_);
        text.resize(std::fread(text.data(), 1, text.size(), errors_));
        return status_.value_or(0) == 0 ? text : fmt::format("status {}\n{}", *status_, text);
    }
    Usage usage() const {
        const std::string directory = fmt::format("/proc/{}/", pid_);
        std::error_code error;
        const std::filesystem::directory_iterator files(directory + "fd", error);
        return {number_in(directory + "smaps_rollup", "\nRss:"),
                number_in(directory + "status", "\nThreads:"),
                static_cast<std::size_t>(std::distance(begin(files), end(files)))};
    }

  private:
    [[noreturn]] void run(const std::string& argument) const {
        constexpr const char* kProgram = VEXON_SOAK_SERVICE;
        ::dup2(::fileno(errors_), STDERR_FILENO);
        ::dup2(memory_, 3);
        ::execl(kProgram, kProgram, argument.empty() ? nullptr : argument.c_str(), nullptr);
        ::_exit(127);
    }
    static std::size_t number_in(const std::string& file, std::string_view key) {
        std::ifstream stream(file);
        return number_after({std::istreambuf_iterator<char>(stream), {}}, key);
    }

    std::FILE* const errors_ = std::tmpfile();
    const int memory_ = ::memfd_create("soak", 0);
    pid_t pid_ = -1;
    std::optional<int> status_;

  public:
    Shared& shared = *static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0));
};

}  // namespace soak
