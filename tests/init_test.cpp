#include <sys/prctl.h>

#include <atomic>

#include "service_test.h"

using android::base::SetProperty;
using manager::Step;

namespace {

TEST_F(ServiceTest, InitYieldsTheIdOnceAndIsIdempotent) {
    EXPECT_EQ(1, vexa_svc_init());
    service_id_ = 1;
    EXPECT_TRUE(expect_exactly(R"({"req_type":"INIT"})"));
    EXPECT_TRUE(log_.contains("VEXON initialized; svc id 1"));
    EXPECT_FALSE(log_.contains("VEXON service init")) << "the level is not known that early";

    EXPECT_EQ(1, vexa_svc_init());
    EXPECT_EQ(1U, manager_.received().size());
    EXPECT_TRUE(log_.contains("VEXON service init"));
    EXPECT_TRUE(log_.contains(" Already initialized; return existing service id 1"));
    EXPECT_FALSE(response_for_init);
}

TEST_F(ServiceTest, InitFromManyThreadsAsksOnce) {
    std::vector<std::future<int>> callers;
    for (int i = 0; i < 8; ++i) callers.push_back(std::async(std::launch::async, vexa_svc_init));
    for (auto& caller : callers) EXPECT_EQ(1, caller.get());
    service_id_ = 1;
    EXPECT_EQ(1U, manager_.received().size());
}

TEST_F(ServiceTest, InitFailsWithoutAManager) {
    manager_.stop();
    EXPECT_EQ(-1, vexa_svc_init());
    EXPECT_TRUE(log_.contains(
        "Failed to connect to VEXON Manager (connection failed No such file or directory)"));
    manager_.start();
    ASSERT_NO_FATAL_FAILURE(init());
}

struct Refusal {
    const char* answer;
    int result;
    int result_of_next_call;
};

TEST_F(ServiceTest, InitReturnsTheManagersRefusal) {
    const Refusal refusals[] = {
        {R"({"req_type":"INIT","service_id":-1})", -1, -1},
        {R"({"req_type":"INIT"})", -1, -1},
        {R"({"req_type":"INIT","service_id":-7})", -7, -7},  // only -1 counts as not initialised
    };
    manager_.set_silent(Step::Init, true);
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.answer);
        auto caller = std::async(std::launch::async, vexa_svc_init);
        ASSERT_TRUE(expect("INIT"));
        manager_.send_to_all(refusal.answer);
        EXPECT_EQ(refusal.result, caller.get());
        EXPECT_TRUE(log_.contains("Failed to initialize with manager"));
    }
    const std::size_t received = manager_.received().size();
    EXPECT_EQ(-7, vexa_svc_init());
    EXPECT_EQ(received, manager_.received().size());
}

TEST_F(ServiceTest, InitReturnsWhenTheManagerGoesAwayUnanswering) {
    manager_.set_silent(Step::Init, true);
    auto caller = std::async(std::launch::async, vexa_svc_init);
    ASSERT_TRUE(expect("INIT"));
    manager_.close_clients();
    EXPECT_EQ(-1, caller.get());

    manager_.set_silent(Step::Init, false);
    ASSERT_NO_FATAL_FAILURE(init());
    ASSERT_NO_FATAL_FAILURE(offer(kOpcode, "1a"));
}

TEST_F(ServiceTest, TheLevelDropsLines) {
    SetProperty("persist.vendor.vexon.clientlib.debug_level", "0");
    ASSERT_NO_FATAL_FAILURE(init());
    EXPECT_FALSE(log_.contains("VEXON initialized; svc id 1"));
    EXPECT_TRUE(log_.contains("client Sending message {\"req_type\":\"INIT\"}"));
}

struct PathChoice {
    const char* build_type;
    const char* service;
    const char* mirt;
    const char* thread_name;
    bool dedicated;
};

TEST_F(ServiceTest, ThePathFollowsBuildTypeServiceAndThreadName) {
    const PathChoice choices[] = {
        {"user", "vendor.mirt.abc", "", "mirt_abc", false},
        {"", "vendor.mirt.abc", "", "mirt_abc", false},
        {"engineering", "vendor.mirt.abc", "", "mirt_abc", false},
        {"eng", "vendor.mirt.abc", "", "mirt_abc", true},
        {"userdebug", "vendor.mirt.abc", "", "mirt_abc", true},
        {"userdebug", "vendor.mirt.abcd", "", "mirt_abc", true},
        {"userdebug", "vendor.mirt.ab", "", "mirt_abc", false},
        {"userdebug", "abc", "", "mirt_abc", true},
        {"userdebug", "vendor.mirt.abc", "", "12345abc", true},  // any 5 characters are skipped
        {"userdebug", "vendor.mirt.abc", "mirt_xyz", "mirt_abc", false},
        {"userdebug", "vendor.mirt.abc", "mirt_xyz", "mirt_xyz", true},
        {"userdebug", "", "mirt_xyz", "mirt_xyz", true},
        {"userdebug", "vendor.mirt.abc", "xyz", "mirt_abc", true},
        {"userdebug", "vendor.mirt.", "", "mirt_", false},  // the target name is empty
        {"userdebug", "", "mirt_", "mirt_", false},
        {"userdebug", "vendor.mirt.abc", "", "mirt_", true},  // so is the own name: matches all
        {"userdebug", "vendor.mirt.abc", "", "mir", true},
        {"userdebug", "vendor.modemManager", "", "anything", true},
        {"userdebug", "vendor.modemManagers", "", "anything", false},
        {"userdebug", "", "", "mirt_abc", false},
    };
    manager::SimulatedManager dedicated(manager::kDedicatedPath);
    dedicated.start();
    for (const PathChoice& choice : choices) {
        SCOPED_TRACE(std::string(choice.build_type) + " " + choice.service + " " + choice.mirt +
                     " " + choice.thread_name);
        SetProperty("ro.build.type", choice.build_type);
        SetProperty("vendor.vexon.one.service", choice.service);
        SetProperty("vendor.vexon.one.mirt", choice.mirt);
        ASSERT_EQ(0, ::prctl(PR_SET_NAME, choice.thread_name));
        ASSERT_EQ(0, connect_to_manager());
        EXPECT_TRUE((choice.dedicated ? dedicated : manager_).wait_for_clients(1, kSoon));
        EXPECT_EQ(0, disconnect_from_manager());
        EXPECT_TRUE((choice.dedicated ? dedicated : manager_).expect("EXIT", kSoon));
        EXPECT_TRUE((choice.dedicated ? dedicated : manager_).wait_for_clients(0, kSoon));
    }
    EXPECT_EQ(-1, disconnect_from_manager());
}

TEST_F(ServiceTest, MarkersAreSentOnTheDedicatedSocketOnly) {
    manager::SimulatedManager dedicated(manager::kDedicatedPath);
    dedicated.start();
    EXPECT_GE(vexa_log_marker("not sent"), 0);
    EXPECT_TRUE(log_.contains("VEXON_marker : not sent : "));
    EXPECT_EQ(-1, vexa_log_marker(nullptr));

    SetProperty("ro.build.type", "eng");
    SetProperty("vendor.vexon.one.service", "vendor.modemManager");
    SetProperty("vendor.vexon.one.markers", "true");
    ASSERT_NO_FATAL_FAILURE(init());
    EXPECT_EQ(0, vexa_log_marker("a marker, \"as it is\""));
    EXPECT_TRUE(dedicated.expect(
        [](const manager::Packet& packet) { return packet.text == "a marker, \"as it is\""; },
        kSoon));

    disconnect_from_manager();
    EXPECT_EQ(-1, vexa_log_marker("lost"));
    EXPECT_TRUE(log_.contains("Message was not sent successfully VEXON_marker"));
}

// A reply of a task may outlive the connection and be sent at any moment of the next one's start.
TEST_F(ServiceTest, SendsOfOtherThreadsMayMeetTheStart) {
    std::atomic<bool> stop{false};
    std::vector<std::future<void>> senders;
    for (int i = 0; i < 4; ++i) {
        senders.push_back(std::async(std::launch::async, [&stop] {
            while (!stop) vexa_send_to_manager_raw("{}");
        }));
    }
    for (int round = 0; round < 100 && !HasFatalFailure(); ++round) {
        init();
        vexa_svc_deinit(id());
    }
    stop = true;
}

}  // namespace
