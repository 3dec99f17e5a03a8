// SPDX-License-Identifier: Apache-2.0
#include "service_test.h"

namespace {

using Texts = std::vector<std::string>;
using Flags = std::vector<bool>;

std::string permission_answer(const std::string& id, const std::string& rest) {
    return R"({"req_type":"PERMISSION","QueryId":)" + id + "," + rest + "}";
}

std::string info_answer(const std::string& kind, const std::string& id, const std::string& rest) {
    return R"({"req_type":")" + kind + R"(","QueryId":)" + id + R"(,"QueryInfosRes":)" + rest + "}";
}

// The tests answer by hand.
class QueryTest : public ServiceTest {
  protected:
    QueryTest() {
        manager_.set_drop(manager::Step::Permission, true);
        manager_.set_drop(manager::Step::Info, true);
    }
};

// The documented conversation has their form.
TEST_F(QueryTest, EachQueryGetsItsOwnAnswer) {
    const std::vector<std::string> names = {"CAMERA", "AUDIO", "PHONE"};
    ASSERT_NO_FATAL_FAILURE(init());
    auto infos = std::async(std::launch::async, vexa_info_query, 5, names);
    ASSERT_TRUE(expect("\"QueryId\":1"));
    auto permissions = std::async(std::launch::async, vexa_permission_query, 5, names);
    ASSERT_TRUE(expect("\"QueryId\":2"));
    auto monitor = std::async(std::launch::async, vexa_info_monitor, 5, names);
    ASSERT_TRUE(expect("\"QueryId\":3"));
    auto refused = std::async(std::launch::async, vexa_permission_query, 5, names);
    ASSERT_TRUE(expect("\"QueryId\":4"));
    manager_.send_to_all(permission_answer("4", R"("status":2,"PermRes":["1","1"])"));
    manager_.send_to_all(info_answer("INFO_MNTR", "3", "[]"));
    manager_.send_to_all(permission_answer("2", R"("status":0,"PermRes":["1","0",7])"));
    manager_.send_to_all(info_answer("INFO_QUERY", "1", R"(["SUCCESS:12:30","ERROR:busy"])"));
    EXPECT_EQ((Texts{"SUCCESS:12:30", "ERROR:busy"}), infos.get());
    EXPECT_EQ((Flags{true, false, true}), permissions.get());
    EXPECT_EQ(Texts{}, monitor.get());
    EXPECT_EQ(Flags{false}, refused.get());
    EXPECT_TRUE(log_.contains("permission: AUDIO"));
    EXPECT_TRUE(log_.contains("i = 1, permRes_meta_data response: 0"));
}

// Answers that do not answer: all queries wait side by side until their time is over.
TEST_F(QueryTest, LateLostAndMalformedAnswersEndInTheTimeOut) {
    const std::pair<std::string, const char*> answers[] = {
        {permission_answer("0", R"("status":0,"PermRes":["1"])"),
         "Discard PERMISSION result due to invalid query_id id"},
        {permission_answer("-1", R"("status":0,"PermRes":["1"])"),
         "Discard PERMISSION result due to invalid query_id id"},
        {permission_answer("\"1\"", R"("status":0,"PermRes":["1"])"),
         "Discard PERMISSION result due to invalid query_id id"},
        {permission_answer("1", R"("status":0,"PermRes":["1","x"])"),
         "Failed to handle message of type 'PERMISSION' ("},
        {permission_answer("1", R"("status":{},"PermRes":["1"])"),
         "Failed to handle message of type 'PERMISSION' ("},
        {permission_answer("99", R"("status":0,"PermRes":["1"])"),
         "Client received!!!\nWaiting for recv from server\n"},
        {info_answer("INFO_MNTR", "{}", R"(["SUCCESS:1"])"),
         "Discard INFO_MNTR result due to invalid query_id id"},
        {info_answer("INFO_QUERY", "2", R"(["SUCCESS:1",{}])"),
         "Failed to handle message of type 'INFO_QUERY' ("},
    };
    ASSERT_NO_FATAL_FAILURE(init());
    const auto start = std::chrono::steady_clock::now();
    auto permissions =
        std::async(std::launch::async, [] { return vexa_permission_query(5, {"x"}); });
    ASSERT_TRUE(expect("\"QueryId\":1"));
    auto infos = std::async(std::launch::async, [] { return vexa_info_query(5, {"x"}); });
    ASSERT_TRUE(expect("\"QueryId\":2"));
    for (const auto& [answer, log_line] : answers) {
        SCOPED_TRACE(answer);
        log_.clear();
        manager_.send_to_all(answer);
        const std::string logged = logged_until_handled();
        EXPECT_TRUE(contains(logged, log_line));
    }
    EXPECT_EQ(Flags{}, permissions.get());
    EXPECT_EQ(Texts{}, infos.get());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_TRUE(log_.contains("Exit vexa_permission_query"));
    EXPECT_TRUE(log_.contains("Exit vexa_info_query"));

    manager_.send_to_all(permission_answer("1", R"("status":0,"PermRes":["1"])"));  // too late
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
}

TEST_F(ServiceTest, QueriesThatCannotBeSentReturnAtOnce) {
    EXPECT_EQ(Flags{}, vexa_permission_query(5, {"x"}));
    EXPECT_EQ(Flags{false}, vexa_permission_query(5, {}));
    EXPECT_FALSE(log_.contains("Failed to receive")) << "the level is still 0";
    EXPECT_EQ(Texts{""}, vexa_info_query(5, {"x"}));
    EXPECT_EQ(Texts(44), vexa_info_monitor(5, Texts(300, "x")));
    EXPECT_EQ(Texts{}, vexa_info_query(5, Texts(256, "x")));
    EXPECT_EQ(Texts{"ERROR:Empty requested info"}, vexa_info_query(5, {}));

    ASSERT_NO_FATAL_FAILURE(init());
    disconnect_from_manager();
    vexa_permission_query(5, {"x"});
    vexa_info_query(5, {"x"});
    EXPECT_TRUE(log_.contains("Failed to receive VEXON permission query ack"));
    EXPECT_TRUE(log_.contains("Failed to receive VEXON info query ack"));
}

// The answer would have to come to the very thread that asks.
TEST_F(ServiceTest, AStateCallbackAsksWithoutWaitingAndCannotRegister) {
    using Results = std::tuple<Flags, Texts, Texts>;
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    for (const char* const message :
         {R"({"req_type":"start_session","session_id":5,"opcodes":[)"
          R"({"id":"1a","subsystems":[{"id":1}]}]})",
          R"({"req_type":"state_change","state":"s","value":"v","session_id":5})"}) {
        std::promise<Results> results;
        recorder_.answer_with([&](const vexa_req_t&) {
            const auto start = std::chrono::steady_clock::now();
            results.set_value({vexa_permission_query(5, {"x"}), vexa_info_query(5, {"x"}),
                               vexa_info_monitor(5, {"x"})});
            EXPECT_EQ(-1, register_service(id(), 27, "1b"));
            EXPECT_EQ(-1, declare_ready(id(), nullptr));
            EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "a time-out takes 3 s";
            return 0;
        });
        log_.clear();
        manager_.send_to_all(message);
        EXPECT_EQ(Results{}, results.get_future().get());
        EXPECT_TRUE(expect("PERMISSION"));
        EXPECT_TRUE(expect("INFO_QUERY"));
        EXPECT_TRUE(expect("INFO_MNTR"));
        EXPECT_TRUE(log_.contains("waiting for response in vexa_info_monitor"));
        EXPECT_TRUE(log_.contains("Exit vexa_permission_query"));
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        EXPECT_TRUE(log_.contains("Failed to run _vexa_svc_register_auth: it cannot wait"));
        EXPECT_TRUE(log_.contains("Failed to run _vexa_svc_ready: it cannot wait"));
        EXPECT_EQ(2U, log_.count("Failed to run"));
        EXPECT_FALSE(manager_.expect("Opcode", 0ms));
        EXPECT_EQ(3U, log_.count("client Sending message {\"req_type\":\"PERMISSION") +
                          log_.count("client Sending message {\"req_type\":\"INFO_"));
    }
}

struct InfoResult {
    const char* text;
    int result;
    const char* out;
};

TEST(InfoResults, AreTakenApart) {
    const InfoResult results[] = {
        {"SUCCESS:12:30", 0, "12:30"},
        {"SUCCESS:", 0, ""},
        {"SUCCESS", 0, ""},
        {"ERROR:busy", -1, "busy"},
        {"OK:1", -1, "Invalid result"},
        {"", -1, "Empty result"},
        {"success:1", -1, "Invalid result"},
    };
    for (const InfoResult& expected : results) {
        std::string out = "old";
        EXPECT_EQ(expected.result, parse_result_of_query_info(expected.text, out)) << expected.text;
        EXPECT_EQ(expected.out, out);
    }
    EXPECT_EQ("", vector_to_string_with_quotes({}));
    EXPECT_EQ(R"("a","","b")", vector_to_string_with_quotes({"a", "", "b"}));
}

struct Conversion {
    const char* text;
    const char* as_int;  // the value, or the log line of the failure
    const char* as_unsigned;
    const char* as_unsigned_long;
};

constexpr const char* kNone = "Invalid input, no conversion";
constexpr const char* kRange = "Invalid input, out of range input";

template <class Number>
std::string converted(int (*convert)(std::string, Number*), const char* text, CapturedLog* log) {
    Number out = 77;
    log->clear();
    if (convert(text, &out) == 0) return std::to_string(out);
    EXPECT_EQ(Number{77}, out) << "failures leave the output alone";
    return log->contains(kNone) ? kNone : log->contains(kRange) ? kRange : "no log line";
}

TEST(Conversions, OfNumbersFollowTheStandardLibrary) {
    const Conversion conversions[] = {
        {"  -42xyz", "-42", "4294967254", "18446744073709551574"},
        {"+7", "7", "7", "7"},
        {"0x10", "0", "0", "0"},
        {"3.9", "3", "3", "3"},
        {"2147483648", kRange, "2147483648", "2147483648"},
        {"-2147483648", "-2147483648", "2147483648", "18446744071562067968"},
        {"4294967296", kRange, "0", "4294967296"},
        {"18446744073709551615", kRange, "4294967295", "18446744073709551615"},
        {"18446744073709551616", kRange, kRange, kRange},
        {"", kNone, kNone, kNone},
        {" -", kNone, kNone, kNone},
        {"abc", kNone, kNone, kNone},
    };
    CapturedLog log;
    for (const Conversion& conversion : conversions) {
        SCOPED_TRACE(conversion.text);
        EXPECT_EQ(conversion.as_int, converted(stoi_validation, conversion.text, &log));
        EXPECT_EQ(conversion.as_unsigned, converted(stoul_validation, conversion.text, &log));
        EXPECT_EQ(conversion.as_unsigned_long, converted(stoull_validation, conversion.text, &log));
    }
}

TEST(Conversions, OfBooleansKnowTwoSpellings) {
    for (const bool value : {true, false}) {
        std::string text = "something";
        vexon_bool_to_string(value, &text);
        EXPECT_EQ(value ? "true" : "false", text);
        bool parsed = !value;
        EXPECT_EQ(0, vexon_string_to_bool(text, &parsed));
        EXPECT_EQ(value, parsed);
        for (const char* other : {"True", "FALSE", "1", " true", "true\n", ""}) {
            EXPECT_EQ(-1, vexon_string_to_bool(other, &parsed)) << other;
            EXPECT_EQ(value, parsed);
        }
    }
}

}  // namespace
