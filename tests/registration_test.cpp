// SPDX-License-Identifier: Apache-2.0
#include "service_test.h"

using manager::Step;

namespace {

struct Registration {
    const char* name;
    std::string blob;
    std::uint32_t opcode;
    int result;
    std::string log_line;
};

std::string header_and(const std::string& text) {
    return std::string("\x01VEXON\x01", 7) + text;
}

TEST_F(ServiceTest, RegistrationChecksTheDefinition) {
    const std::string valid = "\x02" + definition("1a", "{\"id\":1}");
    const std::string large = definition("1a", "{\"id\":1," + std::string(3'000, ' ') + "\"x\":0}");
    const Registration registrations[] = {
        {"whole header", header_and(valid), 26, 0, "VEXON service authed and registered"},
        {"no header", valid, 26, 0, "Duplicate service registration 0x0000001a::1"},
        {"longer than a line", "\x02" + large, 26, 0, "json is " + large.substr(0, 2500)},
        {"opcode with 0x", "\x02" + definition("0x1A", ""), 26, 0, "json is {\"Vexon\":"},
        {"of an opcode the low 32 bits", "\x02" + definition("30000001a", ""), 26, 0, "json is {"},
        {"header cut short", "\x01VEX" + valid, 26, 0, "json is {\"Vexon\":"},
        {"no opcode is opcode 0", "\x02{\"Vexon\":{}}", 0, 0, "json is {\"Vexon\":{}}"},
        {"a subsystem without id is 0", "\x02" + definition("1a", "{}"), 26, 0,
         "Successfully authed and added 0x0000001a::0 service mapping"},
        {"no service at all", "\x02{}", 26, -2,
         "Mismatch opcode in registration 0 (0x00000026) vs definition (0x00000000)"},
        {"other opcode", valid, 27, -2,
         "Mismatch opcode in registration 1a (0x00000027) vs definition (0x00000026)"},
        {"version 3", header_and("\x03{}"), 26, -1, "Unsupported API definition (wanted 2; got 3)"},
        {"version missing", header_and(""), 26, -1, "Unsupported API definition (wanted 2; got 0)"},
        {"not JSON", "\x02{\"Vexon\":", 26, -1,
         "Parsing of API definition failed!! (opcode 0x0000001a)"},
        {"trailing comma", "\x02{\"Vexon\":{\"opcode\":\"1a\",}}", 26, -1,
         "  JSON failure * Line 1"},
        {"not an object", "\x02[1]", 26, -1, "  JSON failure "},
        {"too deep", "\x02" + std::string(2000, '['), 26, -1, "  JSON failure "},
        {"subsystem of a wrong kind", "\x02" + definition("1a", "{\"id\":\"x\"}"), 26, -1,
         "  JSON failure "},
    };
    ASSERT_NO_FATAL_FAILURE(init());
    for (const Registration& registration : registrations) {
        SCOPED_TRACE(registration.name);
        const auto* blob = reinterpret_cast<const std::uint8_t*>(registration.blob.c_str());
        const std::size_t sent = manager_.received().size();
        log_.clear();
        EXPECT_EQ(registration.result,
                  _vexa_svc_register_auth(id(), registration.opcode, blob, "token"));
        EXPECT_TRUE(log_.contains(registration.log_line));
        EXPECT_EQ(registration.result == 0, log_.contains("VEXON service authed and registered"));
        EXPECT_EQ(sent + (registration.result == 0 ? 1 : 0), manager_.received().size());
    }
    EXPECT_TRUE(is_service_supported(26, 0));
    EXPECT_TRUE(is_service_supported(26, 1));
    EXPECT_FALSE(is_service_supported(26, 2));
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_FALSE(is_service_supported(26, 1));
}

TEST_F(ServiceTest, CallsBeforeInitOrWithAnotherIdAreRefused) {
    const auto blob = with_header(definition("1a", ""));
    const auto calls = [&](std::uint32_t service_id) {
        return std::vector<int>{
            _vexa_svc_register_auth(service_id, kOpcode, blob.data(), "token"),
            _vexa_svc_ready(service_id, kOpcode, StateRecorder::record, &recorder_, echo_name),
            vexa_svc_deinit(service_id)};
    };
    EXPECT_EQ((std::vector<int>{-3, -3, -3}), calls(1));
    ASSERT_NO_FATAL_FAILURE(init());
    EXPECT_EQ((std::vector<int>{-2, -2, -2}), calls(2));
    EXPECT_EQ(-2, _vexa_svc_register_auth(id(), kOpcode, nullptr, "token"));
    EXPECT_EQ(-2, _vexa_svc_register_auth(id(), kOpcode, blob.data(), nullptr));
    EXPECT_EQ(-1, _vexa_svc_register(id(), kOpcode, blob.data()));
    EXPECT_EQ(1U, manager_.received().size()) << "only INIT";
}

TEST_F(ServiceTest, RefusalsLeaveNothingBehind) {
    ASSERT_NO_FATAL_FAILURE(init());
    const auto blob = with_header(definition("1a", "{\"id\":1}"));
    manager_.refuse(Step::Auth);
    EXPECT_EQ(-1, _vexa_svc_register_auth(id(), kOpcode, blob.data(), "token"));
    EXPECT_TRUE(log_.contains("VEXON service auth registration failed."));
    EXPECT_FALSE(is_service_supported(kOpcode, 1));
    manager_.accept(Step::Auth);
    EXPECT_EQ(0, _vexa_svc_register_auth(id(), kOpcode, blob.data(), "token"));

    manager_.refuse(Step::Ready);
    EXPECT_EQ(-1, _vexa_svc_ready(id(), kOpcode, StateRecorder::record, &recorder_, echo_name));
    EXPECT_TRUE(log_.contains("Failed to make service ready at manager; aborting"));
    manager_.start_session(5, {{kOpcode, {1}}});
    EXPECT_TRUE(expect("\"Result\":\"Failed\""));
    EXPECT_TRUE(recorder_.calls().empty());
    manager_.accept(Step::Ready);
    EXPECT_EQ(0, _vexa_svc_ready(id(), kOpcode, StateRecorder::record, &recorder_, echo_name));
}

TEST_F(ServiceTest, CallersReturnWhenTheirRequestCannotBeSent) {
    ASSERT_NO_FATAL_FAILURE(init());
    disconnect_from_manager();
    EXPECT_EQ(-1, register_service(id()));
    EXPECT_TRUE(
        log_.contains("VEXON service authenticate and registration failed to send to manager."));
    EXPECT_EQ(-1, declare_ready(id(), &recorder_));
    EXPECT_TRUE(log_.contains("client NOT able to send msg"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
}

// The acknowledgement may be quicker than the caller's wait for it.
TEST_F(ServiceTest, NoAcknowledgementIsSleptThrough) {
    ASSERT_NO_FATAL_FAILURE(init());
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (std::uint32_t i = 0; i < 100; ++i) {
                char hex[9];
                const std::uint32_t opcode = (thread << 8) + i;
                std::snprintf(hex, sizeof(hex), "%x", opcode);
                offer(opcode, hex);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(801U, manager_.received().size());
}

// What would else be searched for, and what ended the process at the first task or notice.
TEST_F(ServiceTest, MissingCallbacksAndATokenAreNamed) {
    ASSERT_NO_FATAL_FAILURE(init());
    const auto blob = with_header(definition("1a", "{\"id\":1}"));
    EXPECT_EQ(-2, _vexa_svc_register_auth(id(), kOpcode, blob.data(), nullptr));
    EXPECT_TRUE(log_.contains("Service 0x0000001a cannot be registered without a token"));
    EXPECT_EQ(1U, manager_.received().size());  // the INIT

    ASSERT_EQ(0, _vexa_svc_register_auth(id(), kOpcode, blob.data(), "token"));
    ASSERT_EQ(0, _vexa_svc_ready(id(), kOpcode, StateRecorder::record, &recorder_, nullptr));
    EXPECT_TRUE(log_.contains("Service 0x0000001a has no exec callback: its tasks are refused"));
    EXPECT_FALSE(log_.contains("has no state callback"));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    log_.clear();
    manager_.exec_task({5, kOpcode, 1, "f"});
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    EXPECT_TRUE(log_.contains("Failed to handle execute task event"));

    const auto other = with_header(definition("1b", "{\"id\":1}"));
    ASSERT_EQ(0, _vexa_svc_register_auth(id(), 0x1b, other.data(), "token"));
    ASSERT_EQ(0, _vexa_svc_ready(id(), 0x1b, nullptr, nullptr, echo_name));
    EXPECT_TRUE(
        log_.contains("Service 0x0000001b has no state callback: its sessions are refused"));
    manager_.send_to_all(manager::permission_change_message("P", true, {5, "pack"}));
    manager_.send_to_all(R"({"req_type":"state_change","state":"s","value":"v"})");
    manager_.start_session(6, {{0x1b, {1}}});
    EXPECT_TRUE(expect(R"("session_id":6,"Result":"Failed")"));
    EXPECT_EQ(0U, log_.count("has been declared ready before"));
}

}  // namespace
