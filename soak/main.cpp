// Puts the library under load for a while: a Manager in this process, a service in another, both
// in a /dev of their own. Ends with a table of figures and checks.

#include <fmt/core.h>
#include <unistd.h>

#include <charconv>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>

#include "private_dev/enter_private_dev.h"
#include "soak.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kUsage =
    "Usage: vexon-soak [SECONDS]\n"
    "Put the library under load, 60 seconds if nothing else is said, 86400 at most.\n"
    "\n"
    "Exit status: 0 all checks hold, 1 some do not, 2 wrong usage, 3 the test itself hangs\n";
constexpr int kChecksFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kHangs = 3;

// All waits have limits of their own, each shorter than this.
constexpr auto kGrace = 180s;

// Ends the process if it is not destroyed in time.
class Watchdog {
  public:
    Watchdog(std::chrono::seconds limit, const soak::Soak& soak)
        : thread_([this, limit, &soak] { watch(limit, soak); }) {}

    ~Watchdog() {
        {
            const std::lock_guard lock(mutex_);
            done_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    void watch(std::chrono::seconds limit, const soak::Soak& soak) {
        std::unique_lock lock(mutex_);
        if (changed_.wait_for(lock, limit, [this] { return done_; })) return;
        std::fputs("\nvexon-soak: FAILED: it hangs\n", stderr);
        soak.kill_service();
        ::_exit(kHangs);
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    std::thread thread_;
};

// Returns 0 if `text` is no number of seconds.
int read_seconds(const char* text) {
    int seconds = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, seconds);
    const bool read = error == std::errc() && stop == end;
    return read && seconds >= 1 && seconds <= 86400 ? seconds : 0;
}

int run(std::chrono::seconds duration) {
    ::signal(SIGPIPE, SIG_IGN);  // the service may end before its time
    soak::Soak soak({duration, VEXON_SOAK_SERVICE, VEXON_SANITIZERS});
    const Watchdog watchdog(duration + kGrace, soak);
    const bool passed = soak.run();
    fmt::print("\n{}\n", passed ? "Passed" : "FAILED");
    return passed ? 0 : kChecksFailed;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc < 2 ? 60 : read_seconds(argv[1]);
    if (argc > 2 || seconds == 0) {
        std::fputs(kUsage, stderr);
        return kWrongUsage;
    }
    enter_private_dev(VEXON_PRIVATE_DEV, argv);
    try {
        return run(std::chrono::seconds(seconds));
    } catch (const std::exception& error) {
        fmt::print(stderr, "vexon-soak: {}\n", error.what());
        return kChecksFailed;
    }
}
