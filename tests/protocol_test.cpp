// SPDX-License-Identifier: Apache-2.0
// Plays the conversation of docs/protocol.md against the library.

#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "service_test.h"

namespace {

struct Line {
    bool from_client;
    std::string text;
};

std::vector<Line> read_conversation() {
    std::ifstream file(VEXON_PROTOCOL_PAGE);
    std::vector<Line> lines;
    for (std::string line; std::getline(file, line);) {
        const std::string mark = line.substr(0, 3);
        if (mark == "<- " || mark == "-> ") lines.push_back({mark == "<- ", line.substr(3)});
    }
    return lines;
}

std::string req_type(const std::string& text) {
    const std::string key = R"({"req_type":")";
    if (text.compare(0, key.size(), key) != 0) return text;
    return text.substr(key.size(), text.find('"', key.size()) - key.size());
}

TEST_F(ServiceTest, TheDocumentedConversationTakesPlace) {
    for (const auto step : {manager::Step::Init, manager::Step::Auth, manager::Step::Ready,
                            manager::Step::Permission, manager::Step::Info}) {
        manager_.set_drop(step, true);
    }
    // What a service does to have a message sent. The others are answers.
    const std::map<std::string, std::function<void()>> actions = {
        {"INIT", [&] { init(); }},
        {"AUTH", [&] { EXPECT_EQ(0, register_service(id())); }},
        {"REDY", [&] { EXPECT_EQ(0, declare_ready(id(), &recorder_)); }},
        {"PERMISSION",
         [&] {
             EXPECT_EQ((std::vector<bool>{true, false}),
                       vexa_permission_query(5, {"camera", "location"}));
         }},
        {"INFO_QUERY",
         [&] {
             EXPECT_EQ(std::vector<std::string>{"SUCCESS:87"}, vexa_info_query(5, {"battery"}));
         }},
        {"INFO_MNTR",
         [&] {
             EXPECT_EQ(2U, vexa_info_monitor(5, {"battery", "screen"}).size());
         }},
        {"DINT", [&] { EXPECT_EQ(0, vexa_svc_deinit(id())); }},
    };
    std::thread service;
    std::map<std::string, int> seen;
    for (const auto& [from_client, text] : read_conversation()) {
        SCOPED_TRACE(text);
        ++seen[req_type(text)];
        if (from_client) {
            if (const auto action = actions.find(req_type(text)); action != actions.end()) {
                if (service.joinable()) service.join();
                service = std::thread(action->second);
            }
            ASSERT_TRUE(expect_exactly(text));
        } else {
            manager_.send_to_all(text);
        }
    }
    service.join();
    EXPECT_TRUE(manager_.unexpected().empty());
    EXPECT_FALSE(log_.contains("Failed to"));
    EXPECT_EQ((std::vector<std::string>{
                  "2 26::1 5", "2 26::2 5", "6 26::1 5", "4 0::0 5 [camera|1||com.example]",
                  "5 0::0 5 [|0|screen:off|com.example]", "7 0::0 5 [|0|volume:3|com.example]",
                  "3 26::2 5", "3 26::1 5"}),
              recorder_.calls());
    for (const char* type :
         {"INIT", "AUTH", "REGS", "REDY", "exec_task", "start_session", "ready_session",
          "end_session", "PERMISSION", "INFO_QUERY", "INFO_MNTR", "permission_change",
          "state_change", "system_setting_change", "DINT", "EXIT"}) {
        EXPECT_NE(0, seen[type]) << type << " is not documented";
    }
}

}  // namespace
