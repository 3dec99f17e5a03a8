// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <regex>

#include "service_test.h"

using manager::Step;

namespace {

std::string task(const std::string& fields, const std::string& func) {
    return R"({"req_type":"exec_task",)" + fields + R"(,"func":)" + func + "}";
}

const char kAddressed[] = R"("opcode":"0x1a","subsys_id":1,"session_id":5)";

TEST_F(ServiceTest, ATaskIsDecodedRunAndAnswered) {
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
            const auto& [type, value] = args.type_queue->at(7);
            EXPECT_EQ(VEXON_TYPE_UINT8, type);
            EXPECT_EQ(value, args.value_queue->at(7));
            const int number = std::static_pointer_cast<ParamValues<unsigned char>>(value)->value;
            EXPECT_EQ(0U, call->reserved);
            call->opcode = "0x1001";
            call->name = args.func_name;
            call->func = "\"out\":" + std::to_string(number + 1);
            call->return_value = -2;
            call->status = 3;
            return 99;
        }));
    manager_.send_to_all(task(std::string(kAddressed) + R"(,"transac_id":7)",
                              R"({"name":"inc","num_of_args":1,)"
                              R"("args":[{"id":7,"type":"uint8","value":4}]})"));
    EXPECT_TRUE(expect_exactly(
        R"({"opcode":"0x1001","name":"inc","subsys_id":"1","req_type":"exec_task","return":-2,)"
        R"("func":{"out":5},"transac_id":7,"status": 3,"session_id":5})"));
    EXPECT_TRUE(log_.wait_for(
        "KRV handleExecTask time taken from VEXON mgr to MIRT sessionId 5 transactionId 7 ",
        kSoon));
    const std::regex sending(
        "vexaSendResponse KRV time taken sessionId 5 transactionId 7 [0-9]+ms");
    const std::vector<LogLine> lines = log_.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
        return std::regex_search(line.text, sending);
    }));
}

struct Encoding {
    const char* name;
    std::int32_t transac_id;
    const char* func;
    const char* req_type;
    const char* text;
};

TEST_F(ServiceTest, TheReplyIsEncodedToTheCharacter) {
    const Encoding encodings[] = {
        {"no result", 7, "-1", "",
         R"({"opcode":"o","name":"n","subsys_id":"4294967295","req_type":"exec_task","return":-2,)"
         R"("func":{},"transac_id":7,"status": -1,"session_id":3})"},
        {"no text", 7, "", "",
         R"({"opcode":"o","name":"n","subsys_id":"4294967295","req_type":"exec_task","return":-2,)"
         R"("func":{},"transac_id":7,"status": 5,"session_id":3})"},
        {"not quite -1", -2, "-1 ", "ignored",
         R"({"opcode":"o","name":"n","subsys_id":"4294967295","req_type":"exec_task","return":-2,)"
         R"("func":{-1 },"transac_id":4294967294,"status": 5,"session_id":3})"},
        {"plain form", -1, "ok", "abc", R"({"req_type":"abc", "Result":"ok"})"},
        {"plain form without result", -1, "-1", "", R"({"req_type":"", "Result":"-1"})"},
    };
    ASSERT_NO_FATAL_FAILURE(init());
    for (const Encoding& encoding : encodings) {
        SCOPED_TRACE(encoding.name);
        _vexon_call_info_t call{3,   encoding.transac_id, 0, 4294967295U, "o",
                                "n", encoding.func,       5, -2};
        vexa_send_response(&call, encoding.req_type);
        EXPECT_TRUE(expect_exactly(encoding.text));
    }
}

struct Addressing {
    const char* name;
    std::string fields;
    std::string reply_part;  // empty: no reply
    std::string log_line;    // empty: no complaint
};

TEST_F(ServiceTest, TasksReachOnlyServicesThatAreReadyInTheSession) {
    static std::atomic<int> tasks{0};
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
            ++tasks;
            return echo_name(call, args);
        }));
    manager_.start_session(6, {{kOpcode, {1}}});
    const Addressing addressings[] = {
        {"hexadecimal with 0x", R"("opcode":"0x1A","subsys_id":1,"session_id":5,"transac_id":1)",
         R"("transac_id":1,)", ""},
        {"hexadecimal without 0x", R"("opcode":"1a","subsys_id":1,"session_id":5,"transac_id":2)",
         R"("transac_id":2,)", ""},
        {"of an opcode the low 32 bits",
         R"("opcode":"30000001a","subsys_id":1,"session_id":5,"transac_id":3)",
         R"("transac_id":3,)", ""},
        {"no transaction id", R"("opcode":"1a","subsys_id":1,"session_id":5)", R"("transac_id":0,)",
         ""},
        {"transaction id -1", R"("opcode":"1a","subsys_id":1,"session_id":5,"transac_id":-1)",
         R"({"req_type":"", "Result":""args":0"})", ""},
        {"largest transaction id",
         R"("opcode":"1a","subsys_id":1,"session_id":5,"transac_id":4294967294)",
         R"("transac_id":4294967294,)", ""},
        {"unknown opcode", R"("opcode":"26","subsys_id":1,"session_id":5)", "",
         "Failed to handle execute task event"},
        {"no opcode", R"("subsys_id":1,"session_id":5)", "", "Failed to handle execute task event"},
        {"unknown session", R"("opcode":"1a","subsys_id":1,"session_id":9)", "",
         "Invalid session_id was passed to execute function 9"},
        {"subsystem not in the session", R"("opcode":"1a","subsys_id":2,"session_id":5)", "",
         "No Session 5 with 0x0000001a::2"},
        {"session not ready", R"("opcode":"1a","subsys_id":1,"session_id":6)", "",
         "Session 6 with 0x0000001a::1 not ready"},
        {"session id of a wrong kind", R"("opcode":"1a","subsys_id":1,"session_id":-5)", "",
         "Failed to handle message of type 'exec_task' ("},
        {"transaction id of a wrong kind",
         R"("opcode":"1a","subsys_id":1,"session_id":5,"transac_id":{})", "",
         "Failed to handle message of type 'exec_task' ("},
    };
    int expected_tasks = 0;
    for (const Addressing& addressing : addressings) {
        SCOPED_TRACE(addressing.name);
        log_.clear();
        manager_.send_to_all(task(addressing.fields, R"({"name":"f","num_of_args":0,"args":[]})"));
        if (!addressing.reply_part.empty()) {
            EXPECT_TRUE(expect(addressing.reply_part));
            ++expected_tasks;
        }
        const std::string logged = logged_until_handled();
        EXPECT_TRUE(contains(logged, addressing.log_line));
        EXPECT_EQ(!addressing.log_line.empty(), contains(logged, "Failed to"));
    }
    EXPECT_FALSE(manager_.expect("\"args\":0", kNotComing));
    EXPECT_EQ(expected_tasks, tasks);
    const auto packets = manager_.received();
    EXPECT_EQ(expected_tasks, std::count_if(packets.begin(), packets.end(), [](const auto& packet) {
                  return contains(packet.text, "\"args\":0");
              }));
}

// A rejected call is not released, by design: there are leaks to tolerate.
TEST_F(ServiceTest, RejectedArgumentsGetNoReply) {
    const std::pair<const char*, const char*> functions[] = {
        {R"({"name":"f","num_of_args":2,"args":[]})",
         "Num of args and size of arg array do not match while parsing"},
        {R"({"name":"f","num_of_args":2,"args":[{"id":0,"type":"string","value":"kept"},)"
         R"({"id":1,"type":"int8","value":-129}]})",
         "Out of range value for int8"},
        {R"({"name":[],"num_of_args":0,"args":[]})", "Malformed argument while parsing: "},
        {R"("no object")", "Malformed argument while parsing: "},
    };
    ASSERT_NO_FATAL_FAILURE(init_and_open(5));
    for (const auto& [function, log_line] : functions) {
        SCOPED_TRACE(function);
        log_.clear();
        manager_.send_to_all(task(std::string(kAddressed) + R"(,"transac_id":7)", function));
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        EXPECT_TRUE(log_.contains(log_line));
        EXPECT_TRUE(log_.contains("Failed to handle execute task event"));
    }
    EXPECT_FALSE(manager_.expect("\"transac_id\":7", kNotComing));
    EXPECT_TRUE(serves(5));
}

// Returns how many structs are in one another, each the first member of the one around it.
int levels(const vexon_type_map_t* typed) {
    int count = 0;
    while (!typed->empty()) {
        ++count;
        const auto& [type, value] = typed->begin()->second;
        EXPECT_EQ(VEXON_TYPE_STRUCT, type);
        typed = &std::static_pointer_cast<ParamValues<vexon_type_map_t>>(value)->value;
    }
    return count;
}

std::string nested_structs(int count) {
    std::string members = "[]";
    for (int i = 1; i < count; ++i) {
        members = R"([{"id":1,"type":"struct","members":)" + members + "}]";
    }
    return R"([{"id":0,"type":"struct","members":)" + members + "}]";
}

// Parsing, decoding and releasing are recursive. An eighth of the usual stack is what a process has
// with "ulimit -s 1024", and less is allowed.
TEST_F(ServiceTest, StructsMayBeNestedAsDeeplyAsMessagesMay) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, ::pthread_attr_init(&attributes));
    ASSERT_EQ(0, ::pthread_attr_setstacksize(&attributes, 128 * 1024));
    ASSERT_EQ(0, ::pthread_setattr_default_np(&attributes));
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
            call->return_value = levels(args.type_queue);
            return 0;
        }));
    manager_.exec_task({5, kOpcode, 1, "f", nested_structs(498)});
    EXPECT_TRUE(expect("\"return\":498,"));
    manager_.exec_task({5, kOpcode, 1, "f", nested_structs(499)});
    EXPECT_TRUE(log_.wait_for("Failed to parse VEXON manager request", kSoon));
}

TEST_F(ServiceTest, TasksRunAtTheSameTime) {
    static std::atomic<int> running{0};
    ASSERT_NO_FATAL_FAILURE(init_and_open(5, [](_vexon_call_info_t*, vexon_func_call_info_t) {
        ++running;
        while (running < 3) std::this_thread::yield();  // each needs the others to go on
        return 0;
    }));
    std::vector<std::int64_t> transactions;
    for (int i = 0; i < 3; ++i) transactions.push_back(manager_.exec_task({5, kOpcode, 1, "meet"}));
    for (const std::int64_t transaction : transactions) {
        EXPECT_TRUE(manager_.await_reply(transaction, kSoon));
    }
}

TEST_F(ServiceTest, AnExceptionOfATaskIsAnsweredAsAFailure) {
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t*, vexon_func_call_info_t) -> int {
            throw std::runtime_error("broken service");
        }));
    const std::string name(101, 'n');
    const auto reply = manager_.await_reply(manager_.exec_task({5, kOpcode, 1, name}), kSoon);
    ASSERT_TRUE(reply);
    EXPECT_EQ(-1, reply->status);
    EXPECT_TRUE(log_.contains("Failed to run function " + name.substr(0, 100) + " (broken"));
}

}  // namespace
