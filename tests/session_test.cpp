// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <iterator>

#include "service_test.h"

namespace {

struct Step {
    const char* name;
    std::string message;
    std::string response;  // empty: none
    const char* log_line;  // unless it is a complaint or the response a failure, there is none
    const char* calls;     // of the state callback
};

// What the library says when it does not do as it was told. (" failed" is also part of a summary.)
constexpr const char* kComplaints[] = {
    "Failed to",        "Invalid",     "::1 failed", "::2 failed",     "terminate failed",
    "does not support", "not started", "already",    "never received", "is not active",
};

bool complains(const std::string& text) {
    return std::any_of(std::begin(kComplaints), std::end(kComplaints),
                       [&](const char* complaint) { return contains(text, complaint); });
}

class SessionTest : public ServiceTest {
  protected:
    void run(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE(step.name);
            const std::size_t earlier_calls = recorder_.calls().size();
            log_.clear();
            manager_.send_to_all(step.message);
            if (!step.response.empty()) {
                EXPECT_TRUE(expect_exactly(step.response));
            }
            const std::string logged = logged_until_handled();
            EXPECT_TRUE(contains(logged, step.log_line));
            EXPECT_EQ(contains(step.response, "Failed") || complains(step.log_line),
                      complains(logged))
                << logged;
            EXPECT_EQ(step.calls, calls_since(earlier_calls));
        }
    }
};

std::string start(const std::string& session, const std::string& opcodes) {
    return R"({"req_type":"start_session","session_id":)" + session +
           R"(,"transac_id":3,"opcodes":[)" + opcodes + "]}";
}

std::string ready(const std::string& session, const std::string& opcodes) {
    return R"({"req_type":"ready_session","session_id":)" + session + R"(,"opcodes":[)" + opcodes +
           "]}";
}

std::string end(const std::string& session, const std::string& opcodes) {
    return R"({"req_type":"end_session","session_id":)" + session + R"(,"opcodes":[)" + opcodes +
           "]}";
}

std::string end_result_of(const std::string& session, const std::string& result) {
    return R"({"req_type":"end_session","session_id":)" + session + R"(,"Result":")" + result +
           "\"}";
}

std::string result_of(const std::string& session, const std::string& result,
                      const std::string& opcodes) {
    return R"({"req_type":"start_session","session_id":)" + session + R"(,"Result":")" + result +
           R"(","opcodes":[)" + opcodes + "]}";
}

TEST_F(SessionTest, StartAndReadyTakeEachServiceThroughItsStates) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_NO_FATAL_FAILURE(offer(0xabcdef01, "abcdef01"));
    const std::string one = R"({"id":"1A","subsystems":[{"id":1}]})";
    const std::string both = R"({"id":"1a","subsystems":[{"id":2},{"id":1}]})";
    run({
        {"no services", start("5", ""), result_of("5", "Failed", ""),
         "Failed to handle session start event", ""},
        {"one service", start("5", one),
         result_of("5", "Success", R"({"id":"0x0000001a","subsystems":[{"id":1}]})"),
         "Session 5 with 0x0000001a::1 success", "2 26::1 5"},
        {"again before ready: reset", start("5", one), result_of("5", "Failed", ""),
         "Session 5 with 0x0000001a::1 never received ready_session. Resetting", ""},
        {"two services, the higher opcode first",
         start("5", R"({"id":"0xabcdef01","subsystems":[{"id":1}]},)" + both),
         result_of("5", "Success",
                   R"({"id":"0x0000001a","subsystems":[{"id":2},{"id":1}]},)"
                   R"({"id":"0xabcdef01","subsystems":[{"id":1}]})"),
         "Start session 5 with 3 service (0 failed; 0 duplicate)",
         "2 2882400001::1 5, 2 26::2 5, 2 26::1 5"},
        {"ready", ready("5", one), "", "Trying to ready session 5 with 0x0000001a::1", "6 26::1 5"},
        {"ready twice", ready("5", one), "", "Session 5 with 0x0000001a::1 already in ready state",
         ""},
        {"start of a ready one is a duplicate", start("5", one), result_of("5", "Failed", ""),
         "Start session 5 with 0 service (0 failed; 1 duplicate)", ""},
        {"of an opcode the low 32 bits",
         start("6", R"({"id":"30000001a","subsystems":[{"id":9}]})"), result_of("6", "Failed", ""),
         "Service does not support requested 0x0000001a::9", ""},
        {"unknown subsystem", start("6", R"({"id":"1a","subsystems":[{"id":9}]})"),
         result_of("6", "Failed", ""), "Service does not support requested 0x0000001a::9", ""},
        {"a subsystem without id is 0", start("6", R"({"id":"1a","subsystems":[{}]})"),
         result_of("6", "Failed", ""), "Service does not support requested 0x0000001a::0", ""},
        {"unknown opcode counts nothing", start("6", R"({"id":"99","subsystems":[{"id":1}]})"),
         result_of("6", "Failed", ""), "Start session 6 with 0 service (0 failed; 0 duplicate)",
         ""},
        {"session id as text", start("\"5\"", one), "", "Failed to handle session start event", ""},
        {"ready of an unknown session", ready("77", one), "",
         "Invalid session_id was passed to handle_session_ready 77", ""},
        {"ready with session id as text", ready("\"5\"", one), "",
         "Failed to handle session ready event", ""},
        {"ready before start", ready("6", one), "",
         "Session 6 with 0x0000001a::1 not started before ready call", ""},
        {"malformed list changes nothing",
         start("7", one + R"(,{"id":"1a","subsystems":[{"id":[]}]})"), "",
         "Failed to handle message of type 'start_session' (", ""},
        {"list of a wrong kind", start("7", "5"), "", "Failed to handle message of type", ""},
    });
}

TEST_F(SessionTest, TheServicesAnswerDecidesTheStartOnly) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    recorder_.answer_with([](const vexa_req_t& request) { return request.subsys_id == 2 ? 1 : 0; });
    const std::string both = R"({"id":"1a","subsystems":[{"id":1},{"id":2}]})";
    run({{"one refuses", start("5", both),
          result_of("5", "Success", R"({"id":"0x0000001a","subsystems":[{"id":1}]})"),
          "Session 5 with 0x0000001a::2 failed", "2 26::1 5, 2 26::2 5"}});

    recorder_.answer_with([](const vexa_req_t&) { return -1; });
    run({
        {"refusing readiness is ignored", ready("5", R"({"id":"1a","subsystems":[{"id":1}]})"), "",
         "Trying to ready session 5 with 0x0000001a::1", "6 26::1 5"},
        {"not so refusing the start", ready("5", R"({"id":"1a","subsystems":[{"id":2}]})"), "",
         "Session 5 with 0x0000001a::2 not started before ready call", ""},
    });
    EXPECT_TRUE(serves(5));
}

// User data and connection belong to others once vexa_svc_deinit() has returned.
TEST_F(SessionTest, DeinitWaitsForACallbackAndNoOtherFollows) {
    const std::string both = R"({"id":"1a","subsystems":[{"id":1},{"id":2}]})";
    const std::pair<const char*, std::string> steps[] = {
        {"1", start("15", both)}, {"2", ready("2", both)}, {"3", end("3", "")}};
    for (const auto& [session, message] : steps) {
        SCOPED_TRACE(message);
        recorder_.answer_with([](const vexa_req_t&) { return 0; });
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        manager_.send_to_all(start(session, both));
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());

        std::promise<void> called;
        std::atomic<bool> returned{false};
        recorder_.answer_with([&](const vexa_req_t&) {
            called.set_value();
            std::this_thread::sleep_for(kNotComing);
            returned = true;
            return 0;
        });
        manager_.send_to_all(message);
        ASSERT_EQ(std::future_status::ready, called.get_future().wait_for(kSoon));
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        EXPECT_TRUE(returned);
        const std::size_t calls = recorder_.calls().size();
        ASSERT_TRUE(manager_.wait_for_clients(0, kSoon));
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        EXPECT_FALSE(manager_.expect("\"Result\":\"Success\",\"opcodes\":[{", 50ms));
        EXPECT_EQ(calls, recorder_.calls().size());
        ASSERT_EQ(0, vexa_svc_deinit(id()));
    }
}

// The Manager counts on it no more, but the service has accepted it.
TEST_F(SessionTest, ASessionAcceptedDuringDeinitEndsWithTheNextLoss) {
    std::promise<void> called;
    recorder_.answer_with([&called](const vexa_req_t& request) {
        if (request.status != VEXA_STATUS_SESSION_START) return 0;
        called.set_value();
        std::this_thread::sleep_for(kNotComing);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.send_to_all(start("7", R"({"id":"1a","subsystems":[{"id":1}]})"));
    ASSERT_EQ(std::future_status::ready, called.get_future().wait_for(kSoon));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    manager_.close_clients();
    EXPECT_TRUE(recorder_.wait_for({"2 26::1 7", "0 26::0 0", "3 26::1 7", "1 26::0 0"}));
}

TEST_F(SessionTest, EndTakesNamedServicesOrAllOutOfTheSession) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_NO_FATAL_FAILURE(offer(27, "1b"));
    const std::string both = R"({"id":"1b","subsystems":[{"id":1}]},)"
                             R"({"id":"1a","subsystems":[{"id":1},{"id":2}]})";
    const std::string all_started = R"({"id":"0x0000001a","subsystems":[{"id":1},{"id":2}]},)"
                                    R"({"id":"0x0000001b","subsystems":[{"id":1}]})";
    const std::string first = R"({"id":26,"subsystems":[{"id":1}]})";
    recorder_.answer_with([](const vexa_req_t& request) {
        return request.status == VEXA_STATUS_SESSION_END && request.subsys_id == 2 ? 1 : 0;
    });
    run({
        {"start", start("5", both), result_of("5", "Success", all_started),
         "Start session 5 with 3 service (0 failed; 0 duplicate)",
         "2 27::1 5, 2 26::1 5, 2 26::2 5"},
        {"by name", end("5", first), end_result_of("5", "Success"),
         "Session 5 with 0x0000001a::1 terminate success", "3 26::1 5"},
        {"by name again", end("5", first), end_result_of("5", "Failed"),
         "Session 5 with 0x0000001a::1 is not active; ignoring", ""},
        {"refused by the service", end("5", R"({"id":26,"subsystems":[{"id":2}]})"),
         end_result_of("5", "Failed"), "Session 5 with 0x0000001a::2 terminate failed",
         "3 26::2 5"},
        {"opcode as text: no answer", end("5", R"({"id":"1a","subsystems":[{"id":2}]})"), "",
         "Failed to handle end start event", ""},
        {"a subsystem without id is 0", end("5", R"({"id":26,"subsystems":[{}]})"),
         end_result_of("5", "Failed"), "Session 5 with 0x0000001a::0 is not active; ignoring", ""},
        {"unknown opcode", end("5", R"({"id":99,"subsystems":[{"id":2}]})"),
         end_result_of("5", "Failed"), "Ended session 5 with 0 service (0 failed)", ""},
        {"unknown session", end("6", ""), end_result_of("6", "Failed"),
         "Session 6 is not active; ignoring", ""},
        {"the whole session, against a service's will", end("5", ""), end_result_of("5", "Success"),
         "Session 5 completely ended", "3 26::2 5, 3 27::1 5"},
        {"it is gone", end("5", ""), end_result_of("5", "Failed"),
         "Session 5 is not active; ignoring", ""},
        {"session id of a wrong kind", end("[]", ""), "",
         "Failed to handle message of type 'end_session' (", ""},
    });
}

}  // namespace
