// SPDX-License-Identifier: Apache-2.0
// Calls, threads and messages of one life of the connection beside the end of that life and the
// beginning of the next.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "client/IVexaClient.h"
#include "faults.h"
#include "service_test.h"

namespace {

using Calls = std::vector<std::string>;
using manager::Step;

// Why nobody received any more, in the order in which that was told.
class Ends {
  public:
    Ends() { vexa_svc_on_receive_end(record, this); }
    ~Ends() { vexa_svc_on_receive_end(nullptr, nullptr); }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    std::vector<int> reasons() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reasons_;
    }

    bool become(const std::vector<int>& reasons) {
        std::unique_lock<std::mutex> lock(mutex_);
        return told_.wait_for(lock, kSoon, [&] { return reasons_ == reasons; });
    }

    // Has the callback run `action` too.
    void set_action(std::function<void()> action) {
        std::lock_guard<std::mutex> lock(mutex_);
        action_ = std::move(action);
    }

  private:
    static void record(vexa_receive_end_t reason, void* user_data) {
        auto& self = *static_cast<Ends*>(user_data);
        std::function<void()> action;
        {
            std::lock_guard<std::mutex> lock(self.mutex_);
            action = self.action_;
        }
        if (action) action();
        std::lock_guard<std::mutex> lock(self.mutex_);
        self.reasons_.push_back(reason);
        self.told_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable told_;
    std::vector<int> reasons_;
    std::function<void()> action_;
};

std::size_t open_sockets() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        int type = 0;
        socklen_t size = sizeof type;
        const bool is_socket = ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
        if (is_socket && type == SOCK_SEQPACKET) ++count;
    }
    return count;
}

class LifeTest : public ServiceTest {
  protected:
    void send_permission_change() {
        manager_.send_to_all(R"({"req_type":"permission_change","permission":"p","status":"1"})");
    }

    // Begins the next life where the last one ended without a de-initialisation.
    void start_over() {
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
    }
};

struct Moment {
    const char* name;
    bool is_registration;
    std::mutex& before_lock_of;
    int nth;
};

TEST_F(LifeTest, ACallWhoseLifeEndsLeavesAndSendsNothing) {
    const Moment moments[] = {
        {"registration before its entry", true, gAuthMutex, 1},
        {"registration before its request", true, gSendMutex, 1},
        {"registration before its wait", true, gAuthWaits.mutex, 1},
        {"registration before its subsystems", true, gServicesMutex, 1},
        {"readiness before its entry", false, gReadyMutex, 1},
        {"readiness before its request", false, gSendMutex, 1},
        {"readiness before its wait", false, gReadyWaits.mutex, 1},
    };
    for (const Moment& moment : moments) {
        SCOPED_TRACE(moment.name);
        ASSERT_NO_FATAL_FAILURE(init());
        ASSERT_EQ(0, register_service(id()));
        StateRecorder released;
        Gate gate(moment.before_lock_of);
        auto call = std::async(std::launch::async, [&, former = id()] {
            gate.stop_me_before_lock(moment.nth);
            return moment.is_registration ? register_service(former)
                                          : declare_ready(former, &released);
        });
        ASSERT_TRUE(gate.wait_until_reached());
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        ASSERT_NO_FATAL_FAILURE(init());
        const std::size_t sent = manager_.received().size();
        gate.open();
        EXPECT_EQ(-1, call.get());

        EXPECT_FALSE(is_service_supported(kOpcode, 1));
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        EXPECT_EQ(sent + 1, manager_.received().size()) << "more than the response to wait for";
        send_permission_change();
        ASSERT_NO_FATAL_FAILURE(offer(kOpcode, "1a"));
        EXPECT_EQ(Calls{}, released.calls());
        ASSERT_EQ(0, vexa_svc_deinit(id()));
    }
}

TEST_F(LifeTest, AnAcknowledgementOfTheNextLifeAnswersNoCallOfTheLast) {
    manager_.set_drop(Step::Ready, true);
    ASSERT_NO_FATAL_FAILURE(init());
    StateRecorder released;
    Gate gate(gReadyWaits.mutex);
    auto call = std::async(std::launch::async, [&] {
        gate.stop_me_before_lock();
        return declare_ready(id(), &released);
    });
    ASSERT_TRUE(gate.wait_until_reached());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init());
    manager_.send_to_all(R"({"req_type":"REDY","opcode":"26","result":0})");
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    gate.open();
    EXPECT_EQ(-1, call.get());
    send_permission_change();
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    EXPECT_EQ(Calls{}, released.calls());
}

struct End {
    const char* name;
    std::function<void()> happen;
    bool releases_init;
    int deinit_result;  // of a process that had a service id
    bool says_dint;
};

// The second of two calls for an opcode has no entry in which an answer could find it.
TEST_F(LifeTest, AllWhoWaitReturnWhenTheConnectionEnds) {
    const End ends[] = {
        {"closed", [&] { manager_.close_clients(); }, true, 0, false},
        {"reset",
         [&] {
             fail(Call::kRecvFrom, ECONNRESET);
             manager_.send_to_all("{}");
         },
         true, 0, true},
        {"refused", [&] { manager_.send_to_all(R"({"req_type":"INIT","service_id":-1})"); }, true,
         -3, false},
        {"disconnected", [] { EXPECT_EQ(0, disconnect_from_manager()); }, true, 0, false},
        {"de-initialised", [&] { EXPECT_EQ(0, vexa_svc_deinit(id())); }, false, -3, true},
    };
    const std::tuple<const char*, Step, std::function<int()>> calls[] = {
        {"INIT", Step::Init, vexa_svc_init},
        {"AUTH", Step::Auth, [this] { return register_service(id()); }},
        {"REDY", Step::Ready, [this] { return declare_ready(id(), &recorder_); }},
    };
    for (const End& end : ends) {
        for (const auto& [request, step, call] : calls) {
            SCOPED_TRACE(std::string(end.name) + " " + request);
            const bool has_id = step != Step::Init;
            if (!has_id && !end.releases_init) continue;
            if (has_id) init();
            manager_.set_drop(step, true);
            std::vector<std::future<int>> callers;
            for (int i = 0; i < (has_id ? 2 : 1); ++i) {
                callers.push_back(std::async(std::launch::async, call));
                ASSERT_TRUE(expect(request));
            }
            std::this_thread::sleep_for(50ms);  // until they wait
            end.happen();
            for (auto& caller : callers) {
                ASSERT_EQ(std::future_status::ready, caller.wait_for(kSoon));
                EXPECT_EQ(-1, caller.get());
            }
            EXPECT_EQ(has_id ? end.deinit_result : -3, vexa_svc_deinit(id()));
            EXPECT_TRUE(!has_id || !end.says_dint || expect("DINT"));
            manager_.set_drop(step, false);
        }
    }
}

TEST_F(LifeTest, OnlyOneDeinitTakesALifeDown) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    const std::uint32_t former = id();
    Gate gate(gInitMutex);
    auto first = std::async(std::launch::async, [&] {
        gate.stop_me_before_lock();
        return vexa_svc_deinit(former);
    });
    ASSERT_TRUE(gate.wait_until_reached());
    auto second = std::async(std::launch::async, [&] { return vexa_svc_deinit(former); });
    auto next = std::async(std::launch::async, vexa_svc_init);
    EXPECT_EQ(std::future_status::timeout, second.wait_for(kNotComing));
    EXPECT_EQ(std::future_status::timeout, next.wait_for(0ms)) << "the old id is of no use";
    gate.open();
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(-3, second.get());
    service_id_ = next.get();
    ASSERT_EQ(static_cast<int>(former) + 1, service_id_);
    EXPECT_EQ(-2, vexa_svc_deinit(former));
    ASSERT_NO_FATAL_FAILURE(offer(kOpcode, "1a"));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    EXPECT_TRUE(serves(5));
}

// One that has checked the id and goes on in the next life leaves that alone.
TEST_F(LifeTest, ADeinitThatComesLateTakesNoOtherLifeDown) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    Gate gate(gClientMutex);
    auto late = std::async(std::launch::async, [&, former = id()] {
        gate.stop_me_before_lock(2);
        return vexa_svc_deinit(former);
    });
    ASSERT_TRUE(gate.wait_until_reached());
    ASSERT_NO_FATAL_FAILURE(start_over());
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    gate.open();
    EXPECT_EQ(-3, late.get());
    EXPECT_TRUE(serves(5));
}

TEST_F(LifeTest, AReceiveThreadThatStartsLateReadsNoLaterConnection) {
    Ends ends;
    hold_new_threads(true);
    fail(Call::kSendTo, EPIPE);
    EXPECT_EQ(-1, vexa_svc_init());
    hold_new_threads(false);
    EXPECT_EQ(0, disconnect_from_manager());
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    let_held_threads_go();
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_DISCONNECTED}));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(serves(5));
    EXPECT_EQ(1U, log_.count("exit thread.."));
}

TEST_F(LifeTest, AReplyIsNotSentInTheNextLife) {
    static std::promise<void> running;
    static std::promise<void> go_on;
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
            if (args.func_name == "slow") {
                running.set_value();
                go_on.get_future().wait();
            }
            return echo_name(call, args);
        }));
    const auto slow = manager_.exec_task({5, kOpcode, 1, "slow"});
    running.get_future().wait();
    ASSERT_NO_FATAL_FAILURE(start_over());
    log_.clear();
    go_on.set_value();
    EXPECT_TRUE(log_.wait_for("client NOT able to send msg", kSoon));
    ASSERT_NO_FATAL_FAILURE(open_session(6));
    EXPECT_TRUE(serves(6));
    EXPECT_FALSE(manager_.await_reply(slow, 0ms));
}

TEST_F(LifeTest, AServiceIdThatIsTakenBackLeavesNoCallbackToTheNextLife) {
    Ends ends;
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.send_to_all(R"({"req_type":"INIT","service_id":-1})");
    ASSERT_TRUE(ends.become({VEXA_RECEIVE_END_REFUSED}));
    EXPECT_EQ(-3, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init());
    StateRecorder recorder;
    ASSERT_EQ(0, register_service(id()));
    ASSERT_EQ(0, declare_ready(id(), &recorder));
    send_permission_change();
    EXPECT_TRUE(recorder.wait_for({"4 0::0 0 [p|1||null]"}));
    EXPECT_EQ(Calls{}, recorder_.calls());
}

// After a reset sessions are left, and the next Manager may give the same number to another.
TEST_F(LifeTest, SessionsAreClearedByTheServiceAfterAReset) {
    Ends ends;
    ASSERT_NO_FATAL_FAILURE(init_and_open(5));
    ASSERT_TRUE(recorder_.wait_for({"2 26::1 5", "6 26::1 5"}));
    manager_.set_reading(false);
    ASSERT_EQ(0, vexa_send_to_manager_raw("unread"));
    manager_.close_clients(manager::Ending::Abrupt);
    manager_.set_reading(true);
    ASSERT_TRUE(ends.become({VEXA_RECEIVE_END_RESET}));
    EXPECT_FALSE(log_.contains("Communication with manager failed"));

    EXPECT_EQ(0, terminate_sessions());
    const Calls ended = {"2 26::1 5", "6 26::1 5", "0 26::0 0", "3 26::1 5"};
    EXPECT_EQ(ended, recorder_.calls());
    ASSERT_NO_FATAL_FAILURE(start_over());
    manager_.exec_task({5, kOpcode, 1, "of no session"});
    EXPECT_TRUE(log_.wait_for("Invalid session_id was passed to execute function 5", kSoon));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    EXPECT_TRUE(serves(5));
}

struct LateMessage {
    const char* text;
    std::mutex& before_lock_of;
    int nth;
};

// The handler has begun in one life and comes to its lock in the next, where the same session and
// service exist.
TEST_F(LifeTest, AMessageInHandActsInNoLaterLife) {
    const LateMessage messages[] = {
        {R"({"req_type":"INIT","service_id":77})", gClientMutex, 1},
        {R"({"req_type":"AUTH","opcode":"26","result":0})", gAuthMutex, 1},
        {R"({"req_type":"REDY","opcode":"26","result":0})", gReadyMutex, 1},
        {R"({"req_type":"exec_task","opcode":"1a","subsys_id":1,"session_id":5,"transac_id":900,)"
         R"("func":{"name":"late","args":[]}})",
         gReadyMutex, 1},
        {R"({"req_type":"start_session","session_id":5,"opcodes":[)"
         R"({"id":"1a","subsystems":[{"id":1}]}]})",
         gSessionsMutex, 2},
        {R"({"req_type":"start_session","session_id":8,"opcodes":[]})", gSessionsMutex, 2},
        {R"({"req_type":"ready_session","session_id":5,"opcodes":[)"
         R"({"id":"1a","subsystems":[{"id":1}]}]})",
         gSessionsMutex, 2},
        {R"({"req_type":"end_session","session_id":5,"opcodes":[)"
         R"({"id":26,"subsystems":[{"id":1}]}]})",
         gSessionsMutex, 2},
        {R"({"req_type":"end_session","session_id":5,"opcodes":[]})", gSessionsMutex, 2},
        {R"({"req_type":"permission_change","permission":"late","status":"1"})", gReadyMutex, 1},
    };
    manager_.set_drop(Step::Auth, false);
    for (const LateMessage& message : messages) {
        SCOPED_TRACE(message.text);
        Ends ends;
        Gate gate(message.before_lock_of);
        ASSERT_NO_FATAL_FAILURE(init_and_open(5));
        ASSERT_TRUE(serves(5));
        recorder_.answer_with([&](const vexa_req_t& request) {
            if (request.status == VEXA_STATUS_STATE_CHANGE) {
                gate.stop_me_before_lock(message.nth);
            }
            return 0;
        });
        manager_.send_to_all(R"({"req_type":"state_change","state":"now","value":"gate"})");
        manager_.send_to_all(message.text);
        ASSERT_TRUE(gate.wait_until_reached());
        terminate_sessions();
        ASSERT_NO_FATAL_FAILURE(start_over());
        manager_.start_session(5, {{kOpcode, {kSubsystem}}});
        ASSERT_TRUE(expect("\"Result\":\"Success\",\"opcodes\":[{"));
        const bool is_task = std::string_view(message.text).find("task") != std::string::npos;
        if (is_task) {  // it would run in a session that is ready
            manager_.ready_session(5, {{kOpcode, {kSubsystem}}});
            ASSERT_TRUE(serves(5));
            ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        }
        const auto calls = recorder_.calls();
        const std::size_t received = manager_.received().size();
        const std::size_t begun = log_.count("KRV handleExecTask");
        gate.open();
        EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_DISCONNECTED}));
        EXPECT_EQ(begun, log_.count("KRV handleExecTask")) << "no task has begun";

        EXPECT_EQ(calls, recorder_.calls());
        if (!is_task) {
            manager_.exec_task({5, kOpcode, 1, "too early"});
            EXPECT_TRUE(log_.wait_for("Session 5 with 0x0000001a::1 not ready", kSoon));
            manager_.ready_session(5, {{kOpcode, {kSubsystem}}});
        }
        EXPECT_EQ(received, manager_.received().size()) << manager_.received().back().text;
        EXPECT_TRUE(serves(5));
        terminate_sessions();
        EXPECT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_DISCONNECTED, VEXA_RECEIVE_END_DISCONNECTED}));
        log_.clear();
    }
}

// A callback may de-initialise on any thread, and another life may begin and open the same session
// before it has returned.
TEST_F(LifeTest, ACallbackThatDeinitialisesTouchesNothingOfTheNextLife) {
    const vexa_status_t statuses[] = {VEXA_STATUS_SESSION_START, VEXA_STATUS_SESSION_READY,
                                      VEXA_STATUS_SESSION_END, VEXA_STATUS_TERMINATED};
    for (const vexa_status_t status : statuses) {
        SCOPED_TRACE(status);
        Ends ends;
        Gate gate(gSessionsMutex);
        recorder_.answer_with([&](const vexa_req_t& request) {
            if (request.status != status) return 0;
            recorder_.answer_with([](const vexa_req_t&) { return 0; });
            gate.stop_me_before_lock(2);  // with which de-initialisation returns
            EXPECT_EQ(0, vexa_svc_deinit(id()));
            return 0;
        });
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        const std::string services =
            R"(_session","session_id":5,"opcodes":[{"id":"1a","subsystems":[{"id":1}]}]})";
        manager_.send_to_all(R"({"req_type":"start)" + services);
        manager_.send_to_all(R"({"req_type":"ready)" + services);
        std::future<int> terminating;
        if (status == VEXA_STATUS_TERMINATED) {
            ASSERT_NO_FATAL_FAILURE(wait_until_handled());
            terminating = std::async(std::launch::async, terminate_sessions);
        } else {
            manager_.send_to_all(R"({"req_type":"end_session","session_id":5,"opcodes":[)"
                                 R"({"id":26,"subsystems":[{"id":1}]}]})");
        }
        ASSERT_TRUE(gate.wait_until_reached());
        if (status != VEXA_STATUS_TERMINATED) {
            // What the former life still had is of no use to the next.
            std::lock_guard<std::mutex> lock(gSessionsMutex);
            gSessions.clear();
        }
        ASSERT_NO_FATAL_FAILURE(init_and_open(5));
        ASSERT_TRUE(serves(5));
        const auto calls = recorder_.calls();
        gate.open();
        if (terminating.valid()) {
            EXPECT_EQ(-1, terminating.get());
        }
        EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_DISCONNECTED}));
        EXPECT_TRUE(serves(5)) << "the session is ready still";
        EXPECT_EQ(calls, recorder_.calls());
        terminate_sessions();
        EXPECT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_DISCONNECTED, VEXA_RECEIVE_END_DISCONNECTED}));
    }
}

// De-initialisation on another thread waits for the callback that does so itself.
TEST_F(LifeTest, ACallbackDoesNotWaitForADeinitThatWaitsForIt) {
    std::promise<void> in_callback;
    std::promise<void> leaving;
    recorder_.answer_with([&](const vexa_req_t&) {
        in_callback.set_value();
        leaving.get_future().wait();
        EXPECT_EQ(-3, vexa_svc_deinit(id()));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.start_session(5, {{kOpcode, {kSubsystem}}});
    in_callback.get_future().wait();
    auto leave = std::async(std::launch::async, [this] { return vexa_svc_deinit(id()); });
    ASSERT_TRUE(expect("DINT"));
    leaving.set_value();
    ASSERT_EQ(std::future_status::ready, leave.wait_for(kSoon));
    EXPECT_EQ(0, leave.get());
}

// A connection that is made too late is nobody's.
TEST_F(LifeTest, AReconnectionDoesNotOutliveItsLife) {
    Ends ends;
    Gate gate(gConnectMutex);
    recorder_.answer_with([&](const vexa_req_t& request) {
        if (request.status == VEXA_STATUS_TERMINATED) gate.stop_me_before_lock(2);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.close_clients();
    ASSERT_TRUE(gate.wait_until_reached());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    gate.open();
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_CLOSED}));
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon));
    EXPECT_EQ(-1, disconnect_from_manager());
}

// User data of a life that has ended may be gone.
TEST_F(LifeTest, TerminationOnAThreadOfTheServiceBelongsToALifeToo) {
    for (std::mutex* const mutex : {&gReadyMutex, &gSessionsMutex}) {
        ASSERT_NO_FATAL_FAILURE(init_and_open(5));
        ASSERT_TRUE(serves(5));
        Gate gate(*mutex);
        auto terminating = std::async(std::launch::async, [&] {
            gate.stop_me_before_lock();
            return terminate_sessions();
        });
        ASSERT_TRUE(gate.wait_until_reached());
        ASSERT_NO_FATAL_FAILURE(start_over());
        ASSERT_NO_FATAL_FAILURE(open_session(6));
        ASSERT_TRUE(serves(6));
        const std::size_t calls = recorder_.calls().size();
        gate.open();
        EXPECT_EQ(-1, terminating.get());
        EXPECT_EQ(calls, recorder_.calls().size());
        EXPECT_TRUE(serves(6));
        manager_.close_clients();
        ASSERT_TRUE(log_.wait_for("reconnected to manager", kSoon));
        ASSERT_EQ(0, vexa_svc_deinit(id()));
    }
}

TEST_F(LifeTest, EachEndOfReceivingIsToldOnceWithItsCause) {
    Ends ends;
    std::vector<int> told;
    const auto expect_told = [&](vexa_receive_end_t reason) {
        told.push_back(reason);
        EXPECT_TRUE(ends.become(told)) << reason;
    };
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    disconnect_from_manager();
    expect_told(VEXA_RECEIVE_END_DISCONNECTED);
    ASSERT_NO_FATAL_FAILURE(start_over());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    expect_told(VEXA_RECEIVE_END_DISCONNECTED);

    manager_.refuse(Step::Init);
    EXPECT_EQ(-1, vexa_svc_init());
    expect_told(VEXA_RECEIVE_END_REFUSED);
    manager_.accept(Step::Init);

#if VEXON_OWN_NEW
    fail(Call::kAnyNew, ENOMEM);
    EXPECT_EQ(-1, vexa_svc_init()) << "nobody can receive the answer";
    expect_told(VEXA_RECEIVE_END_ERROR);
    EXPECT_TRUE(log_.contains("Failed to receive from the Manager (std::bad_alloc)"));
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon)) << "or the next would read its answer";
#endif
    ASSERT_NO_FATAL_FAILURE(init_and_offer());

    manager_.close_clients();
    expect_told(VEXA_RECEIVE_END_RECONNECTED);
    EXPECT_EQ((Calls{"0 26::0 0", "1 26::0 0"}), recorder_.calls()) << "before that";
    ASSERT_NO_FATAL_FAILURE(start_over());

    log_.clear();
    const auto stop = std::chrono::steady_clock::now();
    manager_.stop();
    ASSERT_TRUE(log_.wait_for("Failed to connect to VEXON Manager (", kSoon, 3));
    advance_clock(19s);
    expect_told(VEXA_RECEIVE_END_TIMED_OUT);
    const auto time = std::chrono::steady_clock::now() - stop;
    EXPECT_GE(time, 20s);
    EXPECT_LE(log_.count("Failed to connect to VEXON Manager ("), 2 + (time - 19s) / 50ms);
    EXPECT_TRUE(log_.contains("Failed to reconnect to manager due to time out"));
    EXPECT_EQ("0 26::0 0", recorder_.calls().back()) << "no notice of a return";
    manager_.start();
    ASSERT_NO_FATAL_FAILURE(start_over());

    ends.set_action([this] {
        EXPECT_TRUE(vexa_permission_query(5, {"x"}).empty());
        terminate_sessions();
        EXPECT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_EQ(-1, vexa_svc_init()) << "must not wait";
        vexa_svc_on_receive_end(nullptr, nullptr);
    });
    fail(Call::kRecvFrom, ECONNRESET);
    manager_.send_to_all("{}");
    expect_told(VEXA_RECEIVE_END_RESET);
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_TRUE(manager_.wait_for_clients(0, kSoon));
    EXPECT_EQ(told, ends.reasons()) << "it does not want to know any more";
}

TEST_F(LifeTest, AnObserverIsCalledNoMoreOnceItWasReplaced) {
    auto ends = std::make_unique<Ends>();
    std::promise<void> called;
    std::promise<void> go_on;
    std::atomic<bool> returned{false};
    ends->set_action([&] {
        called.set_value();
        go_on.get_future().wait();
        std::this_thread::sleep_for(50ms);
        returned = true;
    });
    ASSERT_NO_FATAL_FAILURE(init());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    called.get_future().wait();
    ASSERT_NO_FATAL_FAILURE(init_and_offer()) << "nobody waits for the observer";
    go_on.set_value();
    ends.reset();
    EXPECT_TRUE(returned);

    // A state callback does not wait: the call may wait for it, as terminate_sessions() does.
    std::promise<void> in_observer;
    std::promise<void> in_callback;
    Ends waiting;
    waiting.set_action([&] {
        in_observer.set_value();
        in_callback.get_future().wait();
        terminate_sessions();
    });
    recorder_.answer_with([&](const vexa_req_t& request) {
        if (request.status != VEXA_STATUS_SESSION_START) return 0;
        in_callback.set_value();
        vexa_svc_on_receive_end(nullptr, nullptr);
        return 0;
    });
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    in_observer.get_future().wait();
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.start_session(5, {{kOpcode, {kSubsystem}}});
    EXPECT_TRUE(waiting.become({VEXA_RECEIVE_END_DISCONNECTED}));
    EXPECT_TRUE(expect("\"Result\":\"Success\""));

    // An end that comes to be told late is that of a life which this process has ended.
    Ends next;
    Gate gate(gReceiveEndMutex);
    recorder_.answer_with([&](const vexa_req_t& request) {
        if (request.status == VEXA_STATUS_RECONNECTED) gate.stop_me_before_lock();
        return 0;
    });
    manager_.close_clients();
    ASSERT_TRUE(gate.wait_until_reached());
    ASSERT_NO_FATAL_FAILURE(start_over());
    gate.open();
    EXPECT_TRUE(next.become({VEXA_RECEIVE_END_DISCONNECTED}));
}

#if VEXON_OWN_NEW

TEST_F(LifeTest, MissingMemoryDelaysTheReconnection) {
    Ends ends;
    recorder_.answer_with([](const vexa_req_t& request) {
        if (request.status == VEXA_STATUS_TERMINATED) fail(Call::kAnyNew, ENOMEM, 4);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.close_clients();
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_RECONNECTED}));
    EXPECT_TRUE(log_.contains("Failed to connect to VEXON Manager (out of memory)"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_TRUE(manager_.wait_for_clients(0, kSoon));
    EXPECT_EQ(1U, open_sockets()) << "that on which the Manager listens";
}

#endif

TEST_F(LifeTest, ADeadConnectionIsTakenForNoLiveOne) {
    Ends ends;
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.close_clients();
    ASSERT_TRUE(ends.become({VEXA_RECEIVE_END_RECONNECTED}));
    const std::size_t sent = manager_.received().size();
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon)) << "it is closed";
    EXPECT_EQ(sent, manager_.received().size()) << "without a word";
    const std::size_t listening = open_sockets();

    ASSERT_EQ(0, connect_to_manager());
    ASSERT_TRUE(manager_.wait_for_clients(1, kSoon));
    manager_.close_clients();
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_RECONNECTED, VEXA_RECEIVE_END_DISCONNECTED}));

    ASSERT_EQ(0, connect_to_manager());
    ASSERT_EQ(0, vexa_send_to_manager_raw("first"));
    ASSERT_NO_FATAL_FAILURE(init()) << "a live one serves on";
    EXPECT_EQ(1U, manager_.clients().size());
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_TRUE(manager_.wait_for_clients(0, kSoon));
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_RECONNECTED, VEXA_RECEIVE_END_DISCONNECTED,
                             VEXA_RECEIVE_END_DISCONNECTED}));
    EXPECT_EQ(listening, open_sockets());
}

// The connection stays open after a refusal, and what else came on it is for nobody.
TEST_F(LifeTest, AnAnswerToAnEarlierRequestIsNotTakenForThatToALaterOne) {
    manager_.refuse(Step::Init);
    manager_.set_twice(Step::Init, true);
    EXPECT_EQ(-1, vexa_svc_init());
    const auto answered_twice = [this] { return manager_.log().size() == 3; };
    for (int i = 0; i < 1000 && !answered_twice(); ++i) std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(answered_twice());
    manager_.accept(Step::Init);
    manager_.set_twice(Step::Init, false);
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
}

TEST_F(LifeTest, ASendThatASignalInterruptsIsRepeated) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    log_.clear();
    fail(Call::kSendTo, EINTR, 3);
    EXPECT_EQ(0, vexa_send_to_manager_raw("once"));
    EXPECT_TRUE(all_failed(Call::kSendTo));
    EXPECT_TRUE(expect_exactly("once"));
    EXPECT_FALSE(manager_.expect("once", kNotComing));
    EXPECT_FALSE(log_.contains("client NOT able to send msg"));
    fail(Call::kSendTo, EINTR, 2);
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(expect("DINT"));
    EXPECT_TRUE(expect_exactly("EXIT"));
}

TEST_F(LifeTest, AManagerThatDoesNotReadHoldsUpNobodyWhoLeaves) {
    const std::function<int()> leaves[] = {
        [this] { return vexa_svc_deinit(id()); },
        disconnect_from_manager,
    };
    const std::string text(20'000, 'x');
    for (const auto& leave : leaves) {
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        manager_.set_reading(false);
        std::vector<std::future<void>> senders;
        for (int i = 0; i < 3; ++i) {
            senders.push_back(std::async(std::launch::async, [&text] {
                while (vexa_send_to_manager_raw(text.c_str()) == 0) continue;
            }));
        }
        EXPECT_EQ(std::future_status::timeout, senders.front().wait_for(kNotComing));
        // The receive thread comes to wait in its response, with the sessions locked.
        manager_.send_to_all(R"({"req_type":"start_session","session_id":6,"opcodes":[]})");
        ASSERT_TRUE(log_.wait_for("session_id received is 6", kSoon));

        log_.clear();
        auto left = std::async(std::launch::async, leave);
        ASSERT_EQ(std::future_status::ready, left.wait_for(kSoon));
        EXPECT_EQ(0, left.get());
        EXPECT_TRUE(log_.contains("Failed to disconnect to manager - proceeding anyways"));
        for (auto& sender : senders) {
            EXPECT_EQ(std::future_status::ready, sender.wait_for(kSoon));
        }
        manager_.set_reading(true);
        vexa_svc_deinit(id());
    }
}

TEST_F(LifeTest, ALeaveComesAfterWhatWasSent) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.set_reading(false);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, vexa_send_to_manager_raw("before"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    manager_.set_reading(true);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(expect("before"));
    EXPECT_TRUE(expect("DINT"));
    EXPECT_TRUE(expect_exactly("EXIT"));
}

// Listens where the Manager would, with a queue that is full.
class FullQueue {
  public:
    FullQueue() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(manager::kDefaultPath).copy(address.sun_path, sizeof(address.sun_path) - 1);
        const auto* const name = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(0, ::bind(listener_, name, sizeof address));
        EXPECT_EQ(0, ::listen(listener_, 0));
        EXPECT_EQ(0, ::connect(filler_, name, sizeof address));
    }

    ~FullQueue() {
        ::close(filler_);
        ::close(listener_);
        ::unlink(manager::kDefaultPath);
    }

    FullQueue(const FullQueue&) = delete;
    FullQueue& operator=(const FullQueue&) = delete;

    // Makes room for one.
    void accept_one() const { ::close(::accept(listener_, nullptr, nullptr)); }

  private:
    const int listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const int filler_ = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
};

TEST_F(LifeTest, AManagerThatAcceptsNobodyHoldsUpNobodyElse) {
    Ends ends;
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.stop();
    ASSERT_TRUE(log_.wait_for("Failed to connect to VEXON Manager (", kSoon));
    {
        const FullQueue queue;
        std::this_thread::sleep_for(kNotComing);  // the receive thread comes to wait in the queue
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms) << "less than an attempt takes";
        EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_CLOSED}));

        auto starting = std::async(std::launch::async, vexa_svc_init);
        EXPECT_EQ(std::future_status::timeout, starting.wait_for(kNotComing));
        EXPECT_EQ(-1, disconnect_from_manager());
        EXPECT_EQ(-3, vexa_svc_deinit(id()));
        log_.clear();
        queue.accept_one();
        EXPECT_TRUE(log_.wait_for("Manager connection established", kSoon))
            << "a queue that is full for a moment is waited for";
        queue.accept_one();  // and the one who waited is let go again
        EXPECT_EQ(-1, starting.get());
    }
    manager_.start();
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
}

TEST_F(LifeTest, ReconnectingKeepsItsTimeInAFullQueueToo) {
    Ends ends;
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.stop();
    ASSERT_TRUE(log_.wait_for("Failed to connect to VEXON Manager (", kSoon));
    const FullQueue queue;
    EXPECT_TRUE(log_.wait_for("(connection failed Resource temporarily unavailable)", kSoon));
    advance_clock(21s);
    EXPECT_TRUE(ends.become({VEXA_RECEIVE_END_TIMED_OUT}));
}

}  // namespace
