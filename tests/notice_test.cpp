// SPDX-License-Identifier: Apache-2.0
#include "service_test.h"

namespace {

struct Notice {
    const char* name;
    const char* message;
    const char* calls;  // of the state callbacks
    const char* log_line;
};

TEST_F(ServiceTest, ChangesReachAllReadyServicesInOrder) {
    const Notice notices[] = {
        {"permission",
         R"({"req_type":"permission_change","sesson_id":"7","status":"1","permission":"CAMERA",)"
         R"("package":"com.example"})",
         "4 0::0 7 [CAMERA|1||com.example], 4 0::0 7 [CAMERA|1||com.example]",
         "Req_type: permission_change Opcode: 0 ssid: 0 session_id: 7 permission: CAMERA package: "
         "com.example status: 1"},
        {"permission withdrawn, session id misplaced",
         R"({"req_type":"permission_change","session_id":"7","status":"0"})",
         "4 0::0 0 [|0||null], 4 0::0 0 [|0||null]",
         "Req_type: permission_change Opcode: 0 ssid: 0 session_id: 0 permission:  package: null "
         "status: 0"},
        {"state",
         R"({"req_type":"state_change","state":"screen","value":"on","session_id":7,)"
         R"("package":"com.example"})",
         "5 0::0 7 [|0|screen:on|com.example], 5 0::0 7 [|0|screen:on|com.example]",
         "State change: state_change, session_id: 7, package: com.example, state: screen:on"},
        {"setting", R"({"req_type":"system_setting_change","state":"volume","value":3})",
         "7 0::0 0 [|0|volume:3|null], 7 0::0 0 [|0|volume:3|null]",
         "State change: system_setting_change, session_id: 0, package: null, state: volume:3"},
        {"state without value", R"({"req_type":"state_change","state":"screen"})", "",
         "state: screen:null"},
        {"state with null in it", R"({"req_type":"state_change","state":"nullable","value":"on"})",
         "", "state: nullable:on"},
        {"session id of a wrong kind",
         R"({"req_type":"state_change","state":"screen","value":"on","session_id":"7"})", "",
         "Failed to handle message of type 'state_change' ("},
        {"state of a wrong kind", R"({"req_type":"system_setting_change","state":{},"value":"on"})",
         "", "Failed to handle message of type 'system_setting_change' ("},
    };
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_NO_FATAL_FAILURE(offer(27, "1b"));
    for (const Notice& notice : notices) {
        SCOPED_TRACE(notice.name);
        const std::size_t earlier_calls = recorder_.calls().size();
        log_.clear();
        manager_.send_to_all(notice.message);
        const std::string logged = logged_until_handled();
        EXPECT_TRUE(contains(logged, notice.log_line));
        EXPECT_EQ(contains(notice.log_line, "Failed to"), contains(logged, "Failed to"));
        EXPECT_EQ(notice.calls, calls_since(earlier_calls));
    }
}

TEST_F(ServiceTest, AServiceWithoutCallbackIsPassedOverByChangesOfState) {
    ASSERT_NO_FATAL_FAILURE(init());
    ASSERT_EQ(0, _vexa_svc_ready(id(), 3, nullptr, nullptr, echo_name));
    ASSERT_NO_FATAL_FAILURE(offer(kOpcode, "1a"));
    manager_.send_to_all(R"({"req_type":"state_change","state":"screen","value":"on"})");
    EXPECT_TRUE(recorder_.wait_for({"5 0::0 0 [|0|screen:on|null]"}));
}

// It would wait for itself: the services are locked while they are told.
TEST_F(ServiceTest, DeinitIsRefusedInsideAChange) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    std::promise<int> result;
    recorder_.answer_with([&](const vexa_req_t&) {
        result.set_value(vexa_svc_deinit(id()));
        return 0;
    });
    manager_.send_to_all(R"({"req_type":"state_change","state":"screen","value":"on"})");
    EXPECT_EQ(-1, result.get_future().get());
    EXPECT_TRUE(log_.contains("Failed to run vexa_svc_deinit: it cannot be called in a notice"));
}

}  // namespace
