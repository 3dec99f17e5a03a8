// SPDX-License-Identifier: Apache-2.0
// Threads of tasks that stay for a next task.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <set>
#include <utility>

#include "client/tasks/workers.h"
#include "faults.h"
#include "service_test.h"

namespace {

using Threads = std::set<std::int64_t>;

std::atomic<int> gThreads{0};
std::atomic<int> gBegun{0};
std::atomic<int> gToBegin{0};

// The number of this thread among those that run tasks.
thread_local const int tNumber = ++gThreads;

// Answers with the number of the thread when as many tasks have begun as are to, which takes a
// thread for each.
int meet(_vexon_call_info_t* call, vexon_func_call_info_t) {
    call->status = tNumber;
    ++gBegun;
    while (gBegun < gToBegin) std::this_thread::yield();
    return 0;
}

std::size_t idle_workers() {
    std::lock_guard<std::mutex> lock(gWorkersMutex);
    return gIdleWorkers.size();
}

// As may happen at any time.
void wake_idle_workers() {
    std::lock_guard<std::mutex> lock(gWorkersMutex);
    for (const auto& worker : gIdleWorkers) worker->called.notify_one();
}

std::size_t threads() {
    const std::filesystem::directory_iterator all("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

void allow(const char* idle) {
    android::base::SetProperty("persist.vendor.vexon.clientlib.idle_workers", idle);
}

class WorkersTest : public ServiceTest {
  protected:
    void serve(const char* idle, vexon_exec_callback_t task = meet) {
        allow(idle);
        ASSERT_NO_FATAL_FAILURE(init_and_offer(task));
        ASSERT_NO_FATAL_FAILURE(open_session(5));
    }

    // Runs tasks that need each other to go on. Returns the numbers of their threads.
    Threads run(int tasks, std::uint32_t session = 5) {
        gToBegin = gBegun + tasks;
        std::vector<std::int64_t> transactions;
        for (int i = 0; i < tasks; ++i) {
            transactions.push_back(manager_.exec_task({session, kOpcode, 1, "meet"}));
        }
        Threads numbers;
        for (const std::int64_t transaction : transactions) {
            const auto reply = manager_.await_reply(transaction, kSoon);
            if (reply) numbers.insert(reply->status.value_or(-1));
        }
        return numbers;
    }

    // Whether so many workers become idle soon, and no other thread is left but those of the
    // library itself.
    bool settles_at(std::size_t idle, std::size_t receive_threads = 1) const {
        const std::size_t wanted = others_ + receive_threads + idle;
        for (int i = 0; i < 1000; ++i) {
            if (idle_workers() == idle && threads() == wanted) return true;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }

    const std::size_t others_ = threads();
};

struct Allowance {
    const char* idle;
    int at_once;
    std::size_t stay;
};

// The idle ones end with the life, long before their time: that is 10 s, and half of it is waited.
TEST_F(WorkersTest, AsManyStayAsMayAndTasksNeverWaitForEachOther) {
    const Allowance allowances[] = {{"", 3, 0},   {"0", 3, 0}, {"-1", 3, 0},    {"many", 3, 0},
                                    {"1", 1, 1},  {"1", 3, 1}, {"2", 5, 2},     {"0x10", 17, 16},
                                    {"64", 3, 3}, {"0", 3, 0}, {"1000", 66, 64}};
    for (const auto& [idle, at_once, stay] : allowances) {
        SCOPED_TRACE(idle);
        ASSERT_NO_FATAL_FAILURE(serve(idle));
        const Threads first = run(at_once);
        EXPECT_EQ(at_once, static_cast<int>(first.size()));
        EXPECT_TRUE(settles_at(stay));
        const Threads second = run(at_once);
        EXPECT_EQ(at_once, static_cast<int>(second.size()));
        EXPECT_TRUE(settles_at(stay));
        Threads both;
        std::set_intersection(first.begin(), first.end(), second.begin(), second.end(),
                              std::inserter(both, both.end()));
        EXPECT_EQ(stay, both.size());
        terminate_sessions();
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_TRUE(settles_at(0, 0));
    }
}

TEST_F(WorkersTest, AnIdleOneEndsAfter10Seconds) {
    ASSERT_NO_FATAL_FAILURE(serve("1"));
    const Threads first = run(1);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(settles_at(1));
        advance_clock(5s);
        wake_idle_workers();
        std::this_thread::sleep_for(kNotComing);
        EXPECT_EQ(first, run(1)) << "that begins its time anew";
    }
    ASSERT_TRUE(settles_at(1));
    advance_clock(10s);
    wake_idle_workers();
    EXPECT_TRUE(settles_at(0));
    EXPECT_NE(first, run(1));
}

TEST_F(WorkersTest, ATaskBelongsToItsOwnLifeAndNotToThatOfItsThread) {
    ASSERT_NO_FATAL_FAILURE(serve("3"));
    const Threads first = run(3);
    ASSERT_TRUE(settles_at(3));
    manager_.send_to_all(R"({"req_type":"INIT","service_id":-1})");
    ASSERT_TRUE(settles_at(3, 0));
    allow("1");
    ASSERT_NO_FATAL_FAILURE(init_and_offer(meet));
    EXPECT_TRUE(settles_at(1));
    ASSERT_NO_FATAL_FAILURE(open_session(6));
    const Threads second = run(1, 6);
    ASSERT_EQ(1U, second.size());
    EXPECT_EQ(1U, first.count(*second.begin()));
}

TEST_F(WorkersTest, ATaskMayEndItsLifeAndBeginAnother) {
    static std::function<void()> begin_another;
    begin_another = [this] { ASSERT_NO_FATAL_FAILURE(init_and_offer(meet)); };
    const auto leave = [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
        if (args.func_name == "meet") return meet(call, args);
        EXPECT_EQ(0, vexa_svc_deinit(static_cast<std::uint32_t>(current_service_id())));
        if (args.func_name == "leave and begin another") begin_another();
        return 0;
    };
    ASSERT_NO_FATAL_FAILURE(serve("1", leave));
    const Threads first = run(1);
    ASSERT_TRUE(settles_at(1));
    manager_.exec_task({5, kOpcode, 1, "leave and begin another"});
    ASSERT_TRUE(log_.wait_for("client NOT able to send msg", kSoon)) << "the reply is of no use";
    EXPECT_TRUE(settles_at(1));
    ASSERT_NO_FATAL_FAILURE(open_session(6));
    EXPECT_EQ(first, run(1, 6));
    ASSERT_TRUE(settles_at(1));

    terminate_sessions();
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(serve("1", leave));
    manager_.exec_task({5, kOpcode, 1, "leave"});
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon));
    EXPECT_TRUE(settles_at(0, 0));
}

TEST_F(WorkersTest, TheLibraryKeepsNothingOfATaskForTheNext) {
    ASSERT_NO_FATAL_FAILURE(serve("1", [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
        call->opcode = std::to_string(std::exchange(errno, EDOM));
        if (args.func_name == "ask") vexa_permission_query(5, {"x"});
        call->return_value = vexa_query_outcome();
        return meet(call, args);
    }));
    const auto ask = manager_.await_reply(manager_.exec_task({5, kOpcode, 1, "ask"}), kSoon);
    ASSERT_TRUE(ask);
    EXPECT_TRUE(contains(ask->packet.text, "\"return\":0,"));
    ASSERT_TRUE(settles_at(1));
    const auto look = manager_.await_reply(manager_.exec_task({5, kOpcode, 1, "look"}), kSoon);
    ASSERT_TRUE(look);
    EXPECT_TRUE(contains(look->packet.text, "\"return\":2,"));
    EXPECT_TRUE(contains(look->packet.text, "\"opcode\":\"0\","));
    EXPECT_EQ(ask->status, look->status) << "the same thread";
}

TEST_F(WorkersTest, AnIdleOneNeedsNoThreadToBeStarted) {
    ASSERT_NO_FATAL_FAILURE(serve("1"));
    const Threads first = run(1);
    ASSERT_TRUE(settles_at(1));
    fail(Call::kPthreadCreate, EAGAIN);
    EXPECT_EQ(first, run(1));
    EXPECT_FALSE(all_failed(Call::kPthreadCreate));
    fail(Call::kPthreadCreate, EAGAIN, 0);
}

#if VEXON_OWN_NEW

TEST_F(WorkersTest, OneThatHasNoMemoryToBecomeIdleEnds) {
    static bool fails = true;
    ASSERT_NO_FATAL_FAILURE(serve("1", [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
        meet(call, args);
        if (!fails) return 0;
        may_fail_here();
        fail(Call::kAnyNew, ENOMEM, 2);  // the first is the reply's
        return 0;
    }));
    manager_.exec_task({5, kOpcode, 1, "f"});
    EXPECT_TRUE(log_.wait_for("Out of memory", kSoon));
    EXPECT_TRUE(settles_at(0));
    EXPECT_TRUE(all_failed(Call::kAnyNew));
    fails = false;
    EXPECT_EQ(1U, run(1).size());
    EXPECT_TRUE(settles_at(1));
}

// What takes memory with the list locked may wait for a fork, which waits for the list.
TEST_F(WorkersTest, OneThatHasBeenIdleNeedsNoMemoryToBecomeIdle) {
    static std::atomic<int> may_end{0};
    ASSERT_NO_FATAL_FAILURE(serve("2", [](_vexon_call_info_t*, vexon_func_call_info_t args) {
        const int turn = std::stoi(args.func_name);
        while (may_end < turn) std::this_thread::yield();
        if (turn < 2) return 0;
        may_fail_here();
        fail(Call::kAnyNew, ENOMEM, 2);  // the first is the reply's
        return 0;
    }));
    manager_.exec_task({5, kOpcode, 1, "1"});
    manager_.exec_task({5, kOpcode, 1, "0"});
    ASSERT_TRUE(wait_until([] { return idle_workers() == 1; }));
    manager_.exec_task({5, kOpcode, 1, "2"});
    ASSERT_TRUE(wait_until([] { return idle_workers() == 0; }));
    may_end = 1;
    ASSERT_TRUE(wait_until([] { return idle_workers() == 1; }));
    may_end = 2;
    ASSERT_TRUE(log_.wait_for("Out of memory", kSoon));
    EXPECT_TRUE(settles_at(2));
    fail(Call::kAnyNew, 0, 0);
}

#endif

TEST_F(WorkersTest, AChildProcessHasNoneOfThem) {
    ASSERT_NO_FATAL_FAILURE(serve("1"));
    const Threads first = run(1);
    ASSERT_TRUE(settles_at(1));
    const pid_t child = ::fork();
    if (child == 0) {
        const bool has_none =
            gWorkersMutex.try_lock() && gIdleWorkers.empty() && gMostIdleWorkers == 0;
        std::_Exit(has_none ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(first, run(1));
}

// What the child finds is then whole.
TEST_F(WorkersTest, AProcessDoesNotForkWhileTheyChange) {
    std::unique_lock<std::mutex> change(gWorkersMutex);
    std::atomic<bool> forked{false};
    std::thread forks([&forked] {
        const pid_t child = ::fork();
        if (child == 0) std::_Exit(0);
        forked = true;
        ::waitpid(child, nullptr, 0);
    });
    std::this_thread::sleep_for(kNotComing);
    EXPECT_FALSE(forked);
    change.unlock();
    forks.join();
}

}  // namespace
