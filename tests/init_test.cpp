// SPDX-License-Identifier: Apache-2.0
#include <sys/prctl.h>

#include <atomic>
#include <iterator>

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
    manager_.set_drop(Step::Init, true);
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.answer);
        log_.clear();
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

// Parts of the lines that a conversation gives rise to, by the level from which on they are logged.
// clang-format off
const std::vector<const char*> kLinesOfLevels[] = {
    {"client Sending message {", "Client received!!!", "json is {", "session_id received is 5",
     "in inform_session_state", "permission: CAMERA", "Entry vexa_permission_query",
     "permission_query request: {", "response in vexa_permission_query",
     "size of permResp array: 1", "permRes_meta_data response: 0", "Exit vexa_permission_query",
     "response in vexa_info_query", " Already initialized; return",
     "gService_id is -1, svc_id is ", "client NOT able to send msg", "register API is deprecated",
     "session_start time taken sessionId 5 ", "session_end time taken sessionId 5 ",
     "handleExecTask time taken from VEXON", "Response KRV time taken sessionId 5 ",
     "VEXON_marker : a marker : "},
    {"Unknown request type 'other'", "Failed to parse VEXON manager request",
     "Failed to handle message of type 'exec_task' (", "Failed to handle execute task event",
     "No Session 5 with 0x0000001a::2", "Session 5 with 0x0000001a::1 already in ready state",
     "Invalid session_id was passed to handle_session_ready 6", "handle session ready event",
     "Failed to handle session start event", "Failed to handle end start event",
     "Mismatch opcode in registration 1a", "recv failed, exit thread"},
    {"Session 5 with 0x0000001a::1 already active", "Session 5 is not active; ignoring"},
    {"Waiting for recv from server", "State change: state_change", "Req_type: permission_change",
     "vexa_info_query request: {", "size of result array: 1", "i = 0, info result: ERROR:unknown",
     "Exit vexa_info_query"},
    {"Manager connection established", "VEXON service init", "VEXON initialized; svc id ",
     "VEXON service register and authenticate", "Added service 0x0000001a::1",
     "Successfully authed and added 0x0000001a::1", "VEXON service authed and registered",
     "Unsupported API definition", "Trying to create new session 5", "Trying to start session 5",
     "Session 5 with 0x0000001a::1 success", "Start session 5 with 1 service (0 failed",
     "Trying to ready session 5", "Trying to end session 5",
     "Session 5 with 0x0000001a::1 terminate success", "Session 5 completely ended",
     "Ended session 5 with 1 service (0 failed)"},
};
// clang-format on

int priority_of(const std::string& line) {
    if (contains(line, " time taken ")) return ANDROID_LOG_DEBUG;
    return contains(line, "VEXON_marker") ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR;
}

class LevelTest : public ServiceTest {
  protected:
    void converse() {
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        vexa_svc_init();
        _vexa_svc_register_auth(id(), 27, with_header(definition("1a", "")).data(), "token");
        _vexa_svc_register_auth(id(), 26, with_header("\x03").data() + 8, "token");
        _vexa_svc_register(id(), 26, nullptr);
        ASSERT_NO_FATAL_FAILURE(open_session(5));
        ASSERT_TRUE(serves(5));
        manager_.exec_task({5, kOpcode, 2, "f"});
        vexa_permission_query(5, {"CAMERA"});
        vexa_info_query(5, {"battery"});
        vexa_log_marker("a marker");
        vexa_send_to_manager_raw(nullptr);
        for (const char* const message :
             {R"({"req_type":"other"})", "no JSON", R"({"req_type":"exec_task","opcode":{}})",
              R"({"req_type":"state_change","state":"screen","value":"on"})",
              R"({"req_type":"permission_change"})",
              R"({"req_type":"ready_session","session_id":6})"}) {
            manager_.send_to_all(message);
        }
        const std::vector<manager::Target> service = {{kOpcode, {kSubsystem}}};
        manager_.ready_session(5, service);
        manager_.start_session(5, service);
        manager_.end_session(5, service);
        manager_.end_session(5, service);
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        ASSERT_EQ(0, vexa_svc_deinit(id()));
    }
};

TEST_F(LevelTest, EachDropsTheLinesOfThoseAboveIt) {
    // Upwards: a conversation begins, and the thread of the one before ends, at the level before.
    for (std::size_t level = 0; level < std::size(kLinesOfLevels); ++level) {
        SCOPED_TRACE(level);
        SetProperty("persist.vendor.vexon.clientlib.debug_level", std::to_string(level));
        log_.clear();
        ASSERT_NO_FATAL_FAILURE(converse());
        EXPECT_TRUE(level == 0 || log_.wait_for("exit thread", kSoon));
        for (std::size_t from = 0; from < std::size(kLinesOfLevels); ++from) {
            for (const char* const line : kLinesOfLevels[from]) {
                EXPECT_EQ(from <= level, log_.contains(line)) << line;
            }
        }
        for (const LogLine& line : log_.lines()) {
            EXPECT_EQ(priority_of(line.text), line.priority) << line.text;
            EXPECT_FALSE(line.has_tag) << line.text;
        }
    }
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
    const manager::Matcher is_marker(
        [](const manager::Packet& packet) { return packet.text == "a marker, \"as it is\""; });
    EXPECT_TRUE(dedicated.expect(is_marker, kSoon));

    // The dedicated service takes its leave of a Manager that has been away too.
    dedicated.close_clients();
    ASSERT_TRUE(log_.wait_for("reconnected to manager", kSoon));
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(dedicated.expect("DINT", kSoon));

    EXPECT_EQ(-1, vexa_log_marker("lost"));
    EXPECT_TRUE(log_.contains("Message was not sent successfully VEXON_marker"));
}

}  // namespace
