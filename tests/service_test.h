// SPDX-License-Identifier: Apache-2.0
// What the tests of a whole service process share: a Manager, the log and the service's callbacks.

#pragma once

#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <vexon2_0.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "captured_log.h"
#include "manager/simulation/Manager.h"

using namespace std::chrono_literals;

constexpr auto kSoon = 10s;         // far beyond what anything here takes
constexpr auto kNotComing = 300ms;  // after which what has not come is taken as not coming
constexpr std::uint32_t kOpcode = 0x1a;
constexpr std::uint32_t kSubsystem = 1;

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Whether `condition` holds soon.
template <class Condition>
bool wait_until(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kSoon;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

// Calls of state callbacks, written down as "status opcode::subsystem session", and for a change
// with its further fields.
class StateRecorder {
  public:
    // The state callback; `user_data` is the recorder.
    static int record(int service_id, vexa_req_t* request, void* user_data);

    std::vector<std::string> calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    // Whether the calls became these soon.
    bool wait_for(const std::vector<std::string>& calls) const {
        return wait_until([&] { return this->calls() == calls; });
    }

    // Has the callback run `action` for each request and return its result.
    void answer_with(std::function<int(const vexa_req_t&)> action) {
        std::lock_guard<std::mutex> lock(mutex_);
        action_ = std::move(action);
    }

  private:
    static std::string change_text(const vexa_req_t& request) {
        if (request.package.empty()) return "";
        return " [" + request.permission + "|" + std::to_string(request.permission_status) + "|" +
               request.state + "|" + request.package + "]";
    }

    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::function<int(const vexa_req_t&)> action_ = [](const vexa_req_t&) { return 0; };
};

inline int StateRecorder::record(int, vexa_req_t* request, void* user_data) {
    auto& self = *static_cast<StateRecorder*>(user_data);
    std::function<int(const vexa_req_t&)> action;
    {
        std::lock_guard<std::mutex> lock(self.mutex_);
        self.calls_.push_back(std::to_string(request->status) + " " +
                              std::to_string(request->opcode) +
                              "::" + std::to_string(request->subsys_id) + " " +
                              std::to_string(request->session_id) + change_text(*request));
        action = self.action_;
    }
    return action(*request);
}

// Answers with the name of the function that was called.
inline int echo_name(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    call->opcode = "0x1a";
    call->name = args.func_name;
    call->func = "\"args\":" + std::to_string(args.num_of_args);
    return 0;
}

// Returns the blob of a definition, with the whole header.
inline std::vector<std::uint8_t> with_header(const std::string& json) {
    const std::string text = std::string("\x01VEXON\x01\x02", 8) + json;
    std::vector<std::uint8_t> blob(text.begin(), text.end());
    blob.push_back(0);
    return blob;
}

inline std::string definition(const std::string& opcode_hex, const std::string& subsystems) {
    return "{\"Vexon\":{\"opcode\":\"" + opcode_hex + "\",\"subsystems\":[" + subsystems + "]}}";
}

class ServiceTest : public ::testing::Test {
  protected:
    ServiceTest() { manager_.start(); }

    ~ServiceTest() override {
        if (service_id_ >= 0) vexa_svc_deinit(static_cast<std::uint32_t>(service_id_));
    }

    void init() {
        service_id_ = vexa_svc_init();
        ASSERT_GE(service_id_, 0);
    }

    std::uint32_t id() const { return static_cast<std::uint32_t>(service_id_); }

    // Registers a service with subsystems 1 and 2.
    static int register_service(std::uint32_t service_id, std::uint32_t opcode = kOpcode,
                                const std::string& opcode_hex = "1a") {
        const auto blob = with_header(definition(opcode_hex, "{\"id\":1},{\"id\":2}"));
        return _vexa_svc_register_auth(service_id, opcode, blob.data(), "token");
    }

    static int declare_ready(std::uint32_t service_id, StateRecorder* recorder) {
        return _vexa_svc_ready(service_id, kOpcode, StateRecorder::record, recorder, echo_name);
    }

    // Registers a service and declares it ready.
    void offer(std::uint32_t opcode, const std::string& opcode_hex,
               vexon_exec_callback_t exec = echo_name) {
        ASSERT_EQ(0, register_service(id(), opcode, opcode_hex));
        ASSERT_EQ(0, _vexa_svc_ready(id(), opcode, StateRecorder::record, &recorder_, exec));
    }

    void init_and_offer(vexon_exec_callback_t exec = echo_name) {
        ASSERT_NO_FATAL_FAILURE(init());
        ASSERT_NO_FATAL_FAILURE(offer(kOpcode, "1a", exec));
    }

    void open_session(std::uint32_t session) {
        manager_.start_session(session, {{kOpcode, {kSubsystem}}});
        ASSERT_TRUE(expect("\"Result\":\"Success\""));
        manager_.ready_session(session, {{kOpcode, {kSubsystem}}});
    }

    void init_and_open(std::uint32_t session, vexon_exec_callback_t exec = echo_name) {
        ASSERT_NO_FATAL_FAILURE(init_and_offer(exec));
        ASSERT_NO_FATAL_FAILURE(open_session(session));
    }

    // Whether a task of the session is answered.
    bool serves(std::uint32_t session, const std::string& function = "f") {
        const auto transaction = manager_.exec_task({session, kOpcode, kSubsystem, function});
        return manager_.await_reply(transaction, kSoon).has_value();
    }

    bool expect(const manager::Matcher& matcher) {
        return manager_.expect(matcher, kSoon).has_value();
    }

    // Whether a packet with exactly this text has come or comes soon.
    bool expect_exactly(const std::string& text) {
        return expect(
            manager::Matcher([&](const manager::Packet& packet) { return packet.text == text; }));
    }

    // Returns the calls of state callbacks but for the first `count`.
    std::string calls_since(std::size_t count) const {
        const std::vector<std::string> calls = recorder_.calls();
        std::string text;
        for (; count < calls.size(); ++count) text += (text.empty() ? "" : ", ") + calls[count];
        return text;
    }

    // Sends a message whose reply tells that all before it have been handled.
    void wait_until_handled() {
        manager_.send_to_all(R"({"req_type":"start_session","session_id":4242,"opcodes":[]})");
        ASSERT_TRUE(expect("\"session_id\":4242"));
    }

    // Waits in the same way and returns what was logged of the messages that were sent since the
    // log was cleared, a line each.
    std::string logged_until_handled() {
        wait_until_handled();
        const std::vector<LogLine> lines = log_.lines();
        const auto find = [&lines](const std::string& text) {
            return std::find_if(lines.begin(), lines.end(),
                                [&](const LogLine& line) { return line.text == text; });
        };
        std::string logged;
        const auto end = find("session_id received is 4242");
        for (auto line = find("Client received!!!"); line < end; ++line)
            logged += line->text + "\n";
        return logged;
    }

    CapturedLog log_;
    StateRecorder recorder_;
    manager::SimulatedManager manager_;
    int service_id_ = -1;
};
