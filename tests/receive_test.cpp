// SPDX-License-Identifier: Apache-2.0
#include <json/json.h>

#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "service_test.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kNotParsed = "Failed to parse VEXON manager request";
constexpr const char* kWhole = "Unknown request type 'aaa";

struct Message {
    const char* name;
    std::string text;
    const char* log_line;
};

std::string message_of_size(std::size_t size) {
    const std::string head = R"({"req_type":"a)";
    const std::string tail = R"("})";
    return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

std::string many_arrays() {
    std::string text = "[]";
    for (int i = 0; i < 2000; ++i) text += ",[]";
    return text;
}

// Returns arrays in one another.
std::string levels(std::size_t count) {
    return std::string(count, '[') + std::string(count, ']');
}

const std::string kBrackets(2000, '[');

const Message kBeforeSessions[] = {
    {"as large as the first buffer", message_of_size(5120), kWhole},
    {"larger than that by one byte", message_of_size(5121), kNotParsed},
    {"not JSON", "hello", kNotParsed},
    {"not an object", "[1]", kNotParsed},
    {"a cut object", R"({"req_type":"INIT")", kNotParsed},
    {"nested too deeply inside", R"({"a":)" + std::string(4000, '['), kNotParsed},
    {"a NUL first", std::string("\0{}", 3), kNotParsed},
    {"text after a NUL", std::string("{\"req_type\":\"a\"}\0b", 17), "Unknown request type 'a'"},
    {"no type", "{}", "Unknown request type '0'"},
    {"unknown type", R"({"req_type":"init"})", "Unknown request type 'init'"},
    {"type of a wrong kind", R"({"req_type":{}})", "Failed to handle message of type '?' ("},
    {"duplicate keys", R"({"req_type":"INIT","req_type":"last"})", "Unknown request type 'last'"},
    {"invalid UTF-8", "{\"req_type\":\"\xff\xfe\"}", "Unknown request type '\xff\xfe'"},
    {"number beyond 64 bits", R"({"req_type":"INIT","service_id":99999999999999999999})",
     "Failed to handle message of type 'INIT' ("},
    {"number beyond all bounds", R"({"req_type":"INIT","service_id":1e999})", kNotParsed},
    {"opcode that does not convert", R"({"req_type":"AUTH","opcode":"x","result":0})",
     "Failed to handle message of type 'AUTH' ("},
    {"opcode beyond 32 bits", R"({"req_type":"REDY","opcode":"4294967322","result":0})",
     "Failed to handle message of type 'REDY' (opcode)"},
    {"opcode below 32 bits", R"({"req_type":"AUTH","opcode":"-2147483649","result":0})",
     "Failed to handle message of type 'AUTH' (opcode)"},
    {"opcode beyond 64 bits", R"({"req_type":"REGS","opcode":"99999999999999999999"})",
     "Failed to handle message of type 'REGS' ("},
    {"result beyond 32 bits", R"({"req_type":"AUTH","opcode":"26","result":4294967296})",
     "Failed to handle message of type 'AUTH' ("},
};

const Message kWithSessions[] = {
    {"as large as the second buffer", message_of_size(524288), kWhole},
    {"larger than that by one byte", message_of_size(524289), kNotParsed},
    {"many brackets, not nested", R"({"req_type":"flat","a":[)" + many_arrays() + "]}",
     "Unknown request type 'flat'"},
    {"brackets behind the object", R"({"req_type":"end"} )" + kBrackets,
     "Unknown request type 'end'"},
    {"brackets in text", R"({"req_type":"text","a":"\"\\)" + kBrackets + "\"}",
     "Unknown request type 'text'"},
    {"as many levels as may be", R"({"req_type":"999","a":)" + levels(998) + "}",
     "Unknown request type '999'"},
    {"one level more", R"({"req_type":"1000","a":)" + levels(999) + "}", kNotParsed},
    // Neither does what is no nesting count as such nor does it hide what is.
    {"brackets in a comment", "/*/" + kBrackets + R"(**/{"req_type":"c1"})",
     "Unknown request type 'c1'"},
    {"brackets in a comment to the end of its line", "//" + kBrackets + "\n{\"req_type\":\"c2\"}",
     "Unknown request type 'c2'"},
    {"a quote in a comment", "//\"\n{\"req_type\":\"c3\",\"a\":\"" + kBrackets + "\"}",
     "Unknown request type 'c3'"},
    {"comments in text", R"({"req_type":"c4","a":"//","b":"/*","c":")" + kBrackets + "\"}",
     "Unknown request type 'c4'"},
    {"nested behind a comment", R"(/*"*/{"a":)" + kBrackets, kNotParsed},
    {"nested behind a comment to a line feed", "//\n{\"a\":" + kBrackets, kNotParsed},
    {"nested behind a comment to a return", "//\r{\"a\":" + kBrackets, kNotParsed},
    {"nested behind text like comments", R"({"a":"/*","b":"//","c":)" + kBrackets, kNotParsed},
    {"nested behind backslashes", R"({"a":"\\","b":)" + kBrackets, kNotParsed},
    // The end of a connection cannot be told from it.
    {"nothing", "", "Communication with manager failed (Success)"},
};

// What one message makes fail must touch neither the next message nor a lock. Where it does not
// parse, the next one has to wait.
TEST_F(ServiceTest, MessagesAtTheLimitsAreDroppedWithALogLine) {
    auto send = [this, last = std::string(), sent = Clock::now()](const Message& message) mutable {
        SCOPED_TRACE(message.name);
        log_.clear();
        const auto previous = std::exchange(sent, Clock::now());
        manager_.send_to_all(message.text);
        EXPECT_TRUE(log_.wait_for(message.log_line, kSoon));
        EXPECT_TRUE(std::exchange(last, message.log_line) != kNotParsed ||
                    Clock::now() - previous >= 500ms);
    };
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    for (const Message& message : kBeforeSessions) send(message);
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());  // a first start_session makes room
    for (const Message& message : kWithSessions) send(message);
    ASSERT_TRUE(log_.wait_for("reconnected to manager, gMgrSocket_fd is ", kSoon));
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
}

// A message of each type with all its keys; each value is exchanged for others.
const char* const kMessages[] = {
    R"({"req_type":"INIT","service_id":-1})",
    R"({"req_type":"AUTH","opcode":"26","result":0})",
    R"({"req_type":"exec_task","opcode":"1a","subsys_id":1,"session_id":5,"transac_id":1,"func":{)"
    R"("name":"f","num_of_args":4,"args":[{"id":0,"type":"int32","value":1},)"
    R"({"id":1,"type":"vector","vec_type":"int8","value":[1]},)"
    R"({"id":2,"type":"vector","vec_type":"struct","value":[{"members":[]}]},)"
    R"({"id":3,"type":"struct","members":[{"id":1,"type":"struct","members":[]},)"
    R"({"id":2,"type":"vector","vec_type":"string","value":["a"]}]}]}})",
    R"({"req_type":"start_session","session_id":6,"transac_id":1,)"
    R"("opcodes":[{"id":"1a","subsystems":[{"id":1}]}]})",
    R"({"req_type":"ready_session","session_id":6,)"
    R"("opcodes":[{"id":"1a","subsystems":[{"id":1}]}]})",
    R"({"req_type":"end_session","session_id":6,"transac_id":1,)"
    R"("opcodes":[{"id":26,"subsystems":[{"id":1}]}]})",
    R"({"req_type":"PERMISSION","QueryId":1,"status":0,"PermRes":["1"]})",
    R"({"req_type":"INFO_QUERY","QueryId":2,"QueryInfosRes":["SUCCESS:1"]})",
    R"({"req_type":"permission_change","sesson_id":"5","status":"1","permission":"p","package":"q"})",
    R"({"req_type":"state_change","session_id":5,"state":"s","value":"v","package":"p"})",
};

const char* const kValues[] = {
    "null", "true", "1", "-1", "1.5", "1e30", "18446744073709551615", "\"x\"", "[]", "[[]]", "{}",
};

// Calls `visit` with `root` once for each value at or below `place`, which is part of `root` and
// exchanged for another at that time.
void exchange_values(Json::Value& root, Json::Value& place,
                     const std::function<void(const Json::Value&)>& visit) {
    for (const char* const text : kValues) {
        Json::Value other;
        std::istringstream(text) >> other;
        place.swap(other);
        visit(root);
        place.swap(other);
    }
    if (!place.isArray() && !place.isObject()) return;
    for (Json::Value& element : place) exchange_values(root, element, visit);
}

TEST_F(ServiceTest, EachValueOfAMessageMayBeOfAnyKind) {
    ASSERT_NO_FATAL_FAILURE(init_and_open(5));
    for (const char* const text : kMessages) {
        Json::Value message;
        std::istringstream(text) >> message;
        exchange_values(message, message, [this](const Json::Value& changed) {
            const bool may_end = changed.isObject() && changed["req_type"] == "INIT" &&
                                 changed["service_id"].isConvertibleTo(Json::intValue);
            if (changed.isObject() && !may_end) manager_.send_to_all(changed.toStyledString());
        });
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    }
    ASSERT_NO_FATAL_FAILURE(open_session(7));
    EXPECT_TRUE(serves(7));
}

// Acknowledgements read their opcode as decimal text up to the first other character.
TEST_F(ServiceTest, AnAcknowledgementAnswersTheOpcodeItsTextConvertsTo) {
    const std::tuple<std::uint32_t, const char*, const char*> opcodes[] = {
        {1, "1", "1a"},
        {4294967295U, "ffffffff", "-1"},
        {2147483648U, "80000000", "-2147483648"},
        {4294967294U, "fffffffe", "4294967294"},
    };
    manager_.set_drop(manager::Step::Auth, true);
    ASSERT_NO_FATAL_FAILURE(init());
    for (const auto& [opcode, hexadecimal, text] : opcodes) {
        SCOPED_TRACE(text);
        auto registering = std::async(std::launch::async, [&, opcode = opcode, hex = hexadecimal] {
            const auto blob = with_header(definition(hex, "{\"id\":2}"));
            return _vexa_svc_register_auth(id(), opcode, blob.data(), "token");
        });
        ASSERT_TRUE(expect("AUTH"));
        manager_.send_to_all(R"({"req_type":"AUTH","opcode":")" + std::string(text) +
                             R"(","result":0})");
        EXPECT_EQ(0, registering.get());
        EXPECT_TRUE(is_service_supported(opcode, 2));
    }
}

TEST_F(ServiceTest, LongMessagesAreSentWholeAndLoggedInPart) {
    ASSERT_NO_FATAL_FAILURE(init());
    const std::string text(200'000, 'x');
    EXPECT_EQ(0, vexa_send_to_manager_raw(text.c_str()));
    EXPECT_TRUE(expect_exactly(text));
    EXPECT_TRUE(log_.contains("client Sending message " + text.substr(0, 2500)));
    EXPECT_FALSE(log_.contains(text.substr(0, 2501)));
    EXPECT_EQ(-1, vexa_send_to_manager_raw(std::string(10'000'000, 'x').c_str()));
    EXPECT_TRUE(log_.contains("client NOT able to send msg"));
    EXPECT_EQ(-1, vexa_send_to_manager_raw(nullptr));

    manager_.send_to_all(R"({"req_type":")" + std::string(4'100, 'y') + "\"}");
    const std::string line = "Unknown request type '" + std::string(4'100, 'y');
    EXPECT_TRUE(log_.wait_for(line.substr(0, 4'067), kSoon));
    EXPECT_FALSE(log_.contains(line.substr(0, 4'068)));
}

}  // namespace
