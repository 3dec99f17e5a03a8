// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "service_test.h"

namespace {

constexpr int kRounds = 250;
constexpr const char* kLogFile = "/dev/shm/log";
constexpr const char* kIdleWorkers = "persist_vendor_vexon_clientlib_idle_workers";

// Keeps a Manager sending to whichever service is there, until the object dies.
class BusyManager {
  public:
    BusyManager() {
        manager_.start();
        sender_ = std::thread([this] {
            while (!stop_) send_some();
        });
    }

    ~BusyManager() {
        stop_ = true;
        sender_.join();
    }

  private:
    void send_some() {
        if (!manager_.expect("REDY", 10ms)) return;
        const int client = manager_.clients().empty() ? 0 : manager_.clients().back();
        try {
            manager_.start_session(1, {{kOpcode, {1}}});
            manager_.ready_session(1, {{kOpcode, {1}}});
            while (!manager_.clients().empty()) {
                manager_.exec_task({1, kOpcode, 1, "f"});
                manager_.send(client, R"({"req_type":"state_change","state":"a","value":"b"})");
                std::this_thread::sleep_for(50us);
            }
        } catch (const manager::ManagerError&) {  // the service has gone
        }
    }

    manager::SimulatedManager manager_;
    std::atomic<bool> stop_{false};
    std::thread sender_;
};

int run_service(const char* way) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, kLogFile,
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const char* const argv[] = {VEXON_EXIT_SERVICE, VEXON_LIBRARY, way, nullptr};
    const char* const idle_workers = std::getenv(kIdleWorkers);
    const std::string workers =
        std::string(kIdleWorkers) + '=' + (idle_workers == nullptr ? "" : idle_workers);
    // A sanitizer's own checks at exit are off: threads that are alive then are the point here.
    const char* const environment[] = {"ASAN_OPTIONS=detect_leaks=0",
                                       "TSAN_OPTIONS=report_thread_leaks=0:atexit_sleep_ms=0",
                                       workers.c_str(), nullptr};
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv),
                      const_cast<char* const*>(environment));
    ::posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    if (error == 0) ::waitpid(pid, &status, 0);
    return status;
}

std::string log_of_service() {
    std::ifstream file(kLogFile);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return text.substr(text.size() - std::min<std::size_t>(text.size(), 5000));
}

class Exit : public ::testing::TestWithParam<const char*> {};

// The receive thread and tasks are at work while the statics of the process die.
TEST_P(Exit, AtWorkNeitherCrashesNorHangs) {
    BusyManager manager;
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(0, run_service(GetParam())) << "round " << round << "\n" << log_of_service();
    }
}

TEST(ExitInTheMidstOfALine, WaitsForItAndLetsNoOtherBegin) {
    EXPECT_EQ(0, run_service("log"));
}

TEST(ExitInTheMidstOfALine, OfTheParentProcessIsNotWaitedFor) {
    EXPECT_EQ(0, run_service("fork"));
}

INSTANTIATE_TEST_SUITE_P(Ways, Exit, ::testing::Values("return", "task", "deinit", "unload"),
                         [](const auto& way) { return std::string(way.param); });

}  // namespace
