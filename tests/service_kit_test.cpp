// SPDX-License-Identifier: Apache-2.0
// vexon2_0_service.h: functions with their types and errors, the definition made from them, and
// how a service stays in service.

#include <vexon2_0_service.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string_view>

#include "service_test.h"

using manager::Ending;
using manager::Step;

namespace {

constexpr vexon::Pace kQuick{10ms, 40ms, 500ms};

enum class Mode : std::uint8_t { kEco, kComfort = 200 };

struct Zone {
    std::string name;
    bool on;
    std::optional<double> level;
    static constexpr auto kMembers =
        vexon::member_list("name", &Zone::name, "on", &Zone::on, "level", &Zone::level);
};

struct All {
    std::uint8_t u8;
    std::uint16_t u16;
    std::uint32_t u32;
    std::uint64_t u64;
    std::int8_t i8;
    std::int16_t i16;
    std::int32_t i32;
    long long i64;
    double real;
    std::string text;
    bool yes;
    vexon::Enum number;
    Mode mode;
    vexon::Blob blob;
    Zone zone;
    static constexpr auto kMembers = vexon::member_list(
        "u8", &All::u8, "u16", &All::u16, "u32", &All::u32, "u64", &All::u64, "i8", &All::i8, "i16",
        &All::i16, "i32", &All::i32, "i64", &All::i64, "real", &All::real, "text", &All::text,
        "yes", &All::yes, "number", &All::number, "mode", &All::mode, "blob", &All::blob, "zone",
        &All::zone);
};

struct Lists {
    std::vector<std::uint8_t> u8;
    std::vector<std::uint16_t> u16;
    std::vector<std::uint32_t> u32;
    std::vector<std::int8_t> i8;
    std::vector<std::int16_t> i16;
    std::vector<std::int64_t> i64;
    std::vector<double> reals;
    std::vector<unsigned long long> u64;
    std::vector<bool> yes;
    std::vector<std::string> texts;
    std::vector<vexon::Enum> numbers;
    std::vector<Mode> modes;
    std::vector<vexon::Blob> blobs;
    static constexpr auto kMembers = vexon::member_list(
        "u8", &Lists::u8, "u16", &Lists::u16, "u32", &Lists::u32, "i8", &Lists::i8, "i16",
        &Lists::i16, "i64", &Lists::i64, "reals", &Lists::reals, "u64", &Lists::u64, "yes",
        &Lists::yes, "texts", &Lists::texts, "numbers", &Lists::numbers, "modes", &Lists::modes,
        "blobs", &Lists::blobs);
};

struct Zones {
    std::vector<Zone> zones;
    static constexpr auto kMembers = vexon::member_list("zones", &Zones::zones);
};

struct Twins {
    int a;
    int b;
    static constexpr auto kMembers = vexon::member_list("x", &Twins::a, "x", &Twins::b);
};

vexon::Reply subtract(int from, const int& what) {
    return vexon::Reply().add("out", from - what);
}

struct Counter {
    std::unique_ptr<std::atomic<int>> count = std::make_unique<std::atomic<int>>(0);
    vexon::Reply operator()() const { return vexon::Reply().add("count", ++*count); }
};

class KitTest : public ServiceTest {
  protected:
    KitTest() { service_.pace(kQuick); }

    void start() {
        ASSERT_TRUE(service_.start()) << service_.error();
        ASSERT_TRUE(service_.wait_until_in_service(kSoon));
    }

    void start_in_session() {
        ASSERT_NO_FATAL_FAILURE(start());
        ASSERT_NO_FATAL_FAILURE(open_session(5));
    }

    std::int64_t send_call(const std::string& function, const std::string& args = "[]") {
        return manager_.exec_task({5, kOpcode, kSubsystem, function, args});
    }

    // Returns what comes between the transaction's own members, "return status func".
    std::string call(const std::string& function, const std::string& args = "[]") {
        return outcome(manager_.await_reply(send_call(function, args), kSoon));
    }

    static std::string outcome(const std::optional<manager::Reply>& reply) {
        if (!reply) return "no reply";
        const std::string& text = reply->packet.text;
        const auto between = [&text](const std::string& from, const std::string& to) {
            const std::size_t begin = text.find(from) + from.size();
            return text.substr(begin, text.find(to, begin) - begin);
        };
        return between(R"("return":)", ",") + ' ' + between(R"("status": )", ",") + ' ' +
               between(R"("func":)", R"(,"transac_id")");
    }

    // Stays in service while the Manager is what `disturb` makes it, or comes back afterwards.
    bool serves() {
        if (!service_.wait_until_in_service(kSoon)) return false;
        const int session = ++sessions_ + 100;
        manager_.start_session(session, {{kOpcode, {kSubsystem}}});
        if (!expect("\"session_id\":" + std::to_string(session) + R"(,"Result":"Success")")) {
            return false;
        }
        manager_.ready_session(session, {{kOpcode, {kSubsystem}}});
        const auto transaction = manager_.exec_task({session, kOpcode, kSubsystem, "answer"});
        return outcome(manager_.await_reply(transaction, kSoon)) == R"(0 0 {"out":42})";
    }

    void add_answer() {
        service_.function("answer", [] { return vexon::Reply().add("out", 42); });
    }

    vexon::Service service_{kOpcode, "kit", "a \"token\""};
    int sessions_ = 0;
};

// ---- Functions

TEST_F(KitTest, EveryTypeGoesInAndOut) {
    service_.function("scalars", {"all"}, [](const All& all) { return all; });
    service_.function("lists", {"lists", "numbers"}, [](Lists lists, std::vector<int> numbers) {
        lists.u8.push_back(static_cast<std::uint8_t>(numbers.size()));
        return std::optional<Lists>(lists);
    });
    service_.function("zones", {"zones"},
                      [](const std::vector<Zone>& zones) { return Zones{zones}; });
    ASSERT_NO_FATAL_FAILURE(start_in_session());
    EXPECT_EQ(
        R"(0 0 {"u8":255,"u16":65535,"u32":4294967295,"u64":18446744073709551615,"i8":-128,)"
        R"("i16":-32768,"i32":-2147483648,"i64":-9223372036854775808,"real":-0.5,"text":"\"\\é",)"
        R"("yes":true,"number":-3,"mode":200,"blob":"b","zone":{"name":"z","on":false}})",
        call("scalars", R"([{"id":0,"type":"struct","members":[
            {"id":0,"type":"uint8","value":255},{"id":1,"type":"uint16","value":65535},
            {"id":2,"type":"uint32","value":4294967295},
            {"id":3,"type":"uint64","value":18446744073709551615},
            {"id":4,"type":"int8","value":-128},{"id":5,"type":"int16","value":-32768},
            {"id":6,"type":"int32","value":-2147483648},
            {"id":7,"type":"int64","value":-9223372036854775808},
            {"id":8,"type":"double","value":-0.5},{"id":9,"type":"string","value":"\"\\é"},
            {"id":10,"type":"boolean","value":true},{"id":11,"type":"enum","value":-3},
            {"id":12,"type":"enum","value":200},{"id":13,"type":"bnry_blb","value":"b"},
            {"id":14,"type":"struct","members":[
                {"id":0,"type":"string","value":"z"},{"id":1,"type":"boolean","value":false}]}]}])"));
    EXPECT_EQ(
        R"(0 0 {"u8":[1,2,3],"u16":[65535],"u32":[4294967295],"i8":[-128],"i16":[-32768],)"
        R"("i64":[-9223372036854775808],"reals":[0.5,-1.0],"u64":[18446744073709551615],"yes":[true,false],"texts":["","t"],)"
        R"("numbers":[-1],"modes":[0,200],"blobs":["b"]})",
        call("lists", R"([{"id":0,"type":"struct","members":[
            {"id":0,"type":"vector","vec_type":"uint8","value":[1,2]},
            {"id":1,"type":"vector","vec_type":"uint16","value":[65535]},
            {"id":2,"type":"vector","vec_type":"uint32","value":[4294967295]},
            {"id":3,"type":"vector","vec_type":"int8","value":[-128]},
            {"id":4,"type":"vector","vec_type":"int16","value":[-32768]},
            {"id":5,"type":"vector","vec_type":"int64","value":[-9223372036854775808]},
            {"id":6,"type":"vector","vec_type":"double","value":[0.5,-1]},
            {"id":7,"type":"vector","vec_type":"uint64","value":[18446744073709551615]},
            {"id":8,"type":"vector","vec_type":"boolean","value":[true,false]},
            {"id":9,"type":"vector","vec_type":"string","value":["","t"]},
            {"id":10,"type":"vector","vec_type":"enum","value":[-1]},
            {"id":11,"type":"vector","vec_type":"enum","value":[0,200]},
            {"id":12,"type":"vector","vec_type":"bnry_blb","value":["b"]}]},
            {"id":1,"type":"vector","vec_type":"int32","value":[1,2,3]}])"));
    EXPECT_EQ(R"(0 0 {"zones":[{"name":"a","on":true,"level":0.25},{"name":"b","on":false}]})",
              call("zones", R"([{"id":0,"type":"vector","vec_type":"struct","value":[
                {"members":[{"id":0,"type":"string","value":"a"},
                            {"id":1,"type":"boolean","value":true},
                            {"id":2,"type":"double","value":0.25}]},
                {"members":[{"id":0,"type":"string","value":"b"},
                            {"id":1,"type":"boolean","value":false}]}]}])"));
}

TEST_F(KitTest, ErrorsAreAnswers) {
    const std::string kZone = R"({"id":0,"type":"struct","members":[)";
    const std::string kName = R"({"id":0,"type":"string","value":"z"})";
    const auto zones = [](const std::string& second) {
        return R"([{"id":0,"type":"vector","vec_type":"struct","value":[)"
               R"({"members":[{"id":0,"type":"string","value":"a"},)"
               R"({"id":1,"type":"boolean","value":true}]},{"members":[)" +
               second + "]}]}]";
    };
    service_.function("subtract", {"from", "what"}, subtract);
    service_.function("count", Counter());
    service_.function("set", {"value"}, std::function<void(std::optional<int>)>([](auto) {}));
    service_.function("mode", {"mode"}, [](Mode) noexcept {});
    service_.function("lamps", {"lamps"}, [](const std::vector<Zone>&) {});
    service_.function("lamp", {"lamp"}, [](Zone) {});
    service_.function("throws", {"what"}, [](const std::string& what) {
        if (what == "error") throw vexon::Error(-77, "no \"such\" thing");
        if (what == "other") throw std::runtime_error("a secret");
        throw 5;
    });
    service_.function("result", {"fails"}, [](bool fails) -> vexon::Result<> {
        if (fails) return vexon::Error(-78, "refused");
        return {vexon::Reply().add("a", 1), 9};
    });
    service_.function("nothing", [] { return std::optional<Zone>(); });
    service_.function("raw", [](const vexon::Call& call) {
        const auto* number = vexon::get<short>(call.arguments(), 7);
        return vexon::Reply().add("raw", number == nullptr ? 0 : *number);
    });
    ASSERT_NO_FATAL_FAILURE(start_in_session());
    const struct {
        const char* function;
        std::string args;
        std::string outcome;
    } calls[] = {
        {"subtract", R"([{"id":1,"type":"int32","value":5},{"id":0,"type":"int32","value":7}])",
         R"(0 0 {"out":2})"},
        {"subtract", R"([{"id":0,"type":"int32","value":7}])",
         R"(-2 -1 {"error":"what is missing"})"},
        {"subtract", "[]", R"(-2 -1 {"error":"from is missing"})"},
        {"subtract", R"([{"id":0,"type":"uint8","value":7},{"id":1,"type":"int32","value":5}])",
         R"(-2 -1 {"error":"from is uint8 instead of int32"})"},
        {"subtract", R"([{"id":0,"type":"vector","vec_type":"int32","value":[]}])",
         R"(-2 -1 {"error":"from is vector of int32 instead of int32"})"},
        {"count", "[]", R"(0 0 {"count":1})"},
        {"count", R"([{"id":0,"type":"int32","value":7}])", R"(0 0 {"count":2})"},
        {"set", "[]", "0 0 {}"},
        {"set", R"([{"id":0,"type":"int32","value":7}])", "0 0 {}"},
        {"set", R"([{"id":0,"type":"string","value":"7"}])",
         R"(-2 -1 {"error":"value is string instead of int32"})"},
        {"mode", R"([{"id":0,"type":"enum","value":255}])", "0 0 {}"},
        {"mode", R"([{"id":0,"type":"enum","value":256}])",
         R"(-2 -1 {"error":"mode is 256, which is out of range"})"},
        {"mode", R"([{"id":0,"type":"enum","value":-1}])",
         R"(-2 -1 {"error":"mode is -1, which is out of range"})"},
        {"lamps", zones(kName), R"(-2 -1 {"error":"lamps[1].on is missing"})"},
        {"lamps", zones(R"({"id":0,"type":"enum","value":0})"),
         R"(-2 -1 {"error":"lamps[1].name is enum instead of string"})"},
        {"lamps", '[' + kZone + "]}]",
         R"(-2 -1 {"error":"lamps is struct instead of vector of struct"})"},
        {"lamp", '[' + kZone + kName + "]}]", R"(-2 -1 {"error":"lamp.on is missing"})"},
        {"throws", R"([{"id":0,"type":"string","value":"error"}])",
         R"(-77 -1 {"error":"no \"such\" thing"})"},
        {"throws", R"([{"id":0,"type":"string","value":"other"}])",
         R"(-4 -1 {"error":"internal error"})"},
        {"throws", R"([{"id":0,"type":"string","value":"int"}])",
         R"(-4 -1 {"error":"internal error"})"},
        {"result", R"([{"id":0,"type":"boolean","value":true}])", R"(-78 -1 {"error":"refused"})"},
        {"result", R"([{"id":0,"type":"boolean","value":false}])", R"(9 0 {"a":1})"},
        {"nothing", "[]", "0 0 {}"},
        {"raw", R"([{"id":7,"type":"int16","value":12}])", R"(0 0 {"raw":12})"},
    };
    for (const auto& [function, args, outcome] : calls) {
        SCOPED_TRACE(function + (' ' + args));
        EXPECT_EQ(outcome, call(function, args));
    }
    EXPECT_EQ(R"(-1 -1 {"error":"there is no function \"a\"b\""})", call("a\"b"));
    EXPECT_TRUE(log_.contains("Function throws failed: a secret"));
}

TEST_F(KitTest, AReplyNamesServiceFunctionAndCall) {
    std::mutex mutex;
    std::vector<std::string> seen;
    service_.function("who", [&](const vexon::Call& call) {
        const std::lock_guard lock(mutex);
        seen.push_back(call.function() + ' ' + std::to_string(call.opcode()) + ' ' +
                       std::to_string(call.subsystem()) + ' ' + std::to_string(call.session()) +
                       ' ' + std::to_string(call.transaction()) +
                       (call.is_stopping() ? " stopping" : ""));
        return vexon::Reply().add("a", 1);
    });
    ASSERT_NO_FATAL_FAILURE(start_in_session());
    manager_.send_to_all(
        R"({"req_type":"exec_task","opcode":"1a","subsys_id":1,"session_id":5,"transac_id":-1,)"
        R"("func":{"name":"who","num_of_args":0,"args":[]}})");
    EXPECT_TRUE(expect_exactly(R"({"req_type":"", "Result":"\"a\":1"})"));
    const std::string id = std::to_string(send_call("who"));
    EXPECT_TRUE(expect_exactly(
        R"({"opcode":"0x1a","name":"who","subsys_id":"1","req_type":"exec_task","return":0,)"
        R"("func":{"a":1},"transac_id":)" +
        id + R"(,"status": 0,"session_id":5})"));
    send_call("a\"b");
    EXPECT_TRUE(expect(R"("name":"unknown")"));
    const std::lock_guard lock(mutex);
    EXPECT_EQ((std::vector<std::string>{"who 26 1 5 -1", "who 26 1 5 " + id}), seen);
}

// ---- The definition

TEST_F(KitTest, TheDefinitionIsMadeFromTheFunctions) {
    vexon::Service service(0x1c4, "lamp", "", {1, 7});
    service.function("set", {"zones", "mode"},
                     [](const vexon::Call&, const std::vector<Zone>&, std::optional<Mode>) -> Zone {
                         return {};
                     });
    service.function("off", [] {});
    service.function("raw", [](const vexon::Call&) { return vexon::Reply(); });
    const std::string members =
        R"({"id":0,"name":"name","type":"string"},{"id":1,"name":"on","type":"boolean"},)"
        R"({"id":2,"name":"level","type":"double","optional":true})";
    EXPECT_EQ(
        R"({"Vexon":{"opcode":"1c4","name":"lamp","subsystems":[{"id":1},{"id":7}],"functions":[)"
        R"({"name":"set","args":[{"id":0,"name":"zones","type":"vector","vec_type":"struct",)"
        R"("members":[)" +
            members +
            R"(]},{"id":1,"name":"mode","type":"enum","optional":true}],"results":[)"
            R"({"name":"name","type":"string"},{"name":"on","type":"boolean"},)"
            R"({"name":"level","type":"double","optional":true}]},)"
            R"({"name":"off","args":[],"results":[]},{"name":"raw"}]}})",
        service.definition());
}

struct Mistake {
    const char* name;
    std::function<void(vexon::Service*)> make;
    const char* error;
};

std::string defined(const std::string& functions, const std::string& opcode = "1a") {
    return R"({"Vexon":{"opcode":")" + opcode +
           R"(","name":"kit","subsystems":[{"id":1}],"functions":[)" + functions + "]}}";
}

TEST_F(KitTest, MistakesEndTheStartAndSayWhere) {
    const char kScan[] = R"({"name":"scan","args":[{"id":0,"name":"ms","type":"uint32"}]})";
    const auto defines = [](const std::string& text) {
        return [text](vexon::Service* service) { service->definition(text); };
    };
    const Mistake mistakes[] = {
        {"name twice", [](auto* s) { s->function("scan", [] {}); },
         "there are two functions \"scan\""},
        {"no name", [](auto* s) { s->function("", [] {}); }, "the name \"\" is empty or"},
        {"quote", [](auto* s) { s->function("a", {"b\"c"}, [](int) {}); }, "the name \"b\"c\""},
        {"argument twice",
         [](auto* s) {
             s->function("a", {"b", "b"}, [](int, int) {});
         },
         "there are two names \"b\" in one list"},
        {"opcode twice", [](auto* s) { s->also(kOpcode, "other", ""); },
         "two services have the opcode 0x1a"},
        {"no subsystem", [](auto* s) { s->also(1, "other", "", {}); }, "other has no subsystem"},
        {"member twice", [](auto* s) { s->function("a", {"b"}, [](std::vector<Twins>) {}); },
         "there are two names \"x\" in one list"},
        {"no array", defines(defined(R"({"name":"scan","args":{"x":"int32"}})")),
         "the definition cannot be read: args is no array"},
        {"no JSON", defines("{"), "the definition cannot be read: "},
        {"function missing", defines(defined("")), "function scan is not in the definition"},
        {"function too many", defines(defined(kScan + std::string(R"(,{"name":"x"})"))),
         "function x is not in the service"},
        {"opcode", defines(defined(kScan, "1b")),
         "opcode is \"27\" in the definition, \"26\" in the service"},
        {"type",
         defines(defined(R"({"name":"scan","args":[{"id":0,"name":"ms","type":"int32"}]})")),
         R"(scan.ms: type is "int32" in the definition, "uint32" in the service)"},
        {"name",
         defines(defined(R"({"name":"scan","args":[{"id":0,"name":"m","type":"uint32"}]})")),
         R"(scan.ms: name is "m" in the definition, "ms" in the service)"},
        {"id", defines(defined(R"({"name":"scan","args":[{"id":3,"name":"ms","type":"uint32"}]})")),
         R"(scan.ms: id is "3" in the definition, "0" in the service)"},
        {"count", defines(defined(R"({"name":"scan","args":[]})")),
         R"(scan: the number of items is "0" in the definition, "1" in the service)"},
        {"results",
         defines(defined(R"({"name":"scan","args":[{"id":0,"name":"ms","type":"uint32"}],)"
                         R"("results":[{"name":"on","type":"int8"}]})")),
         R"(scan results.on: type is "int8" in the definition, "boolean" in the service)"},
    };
    for (const Mistake& mistake : mistakes) {
        SCOPED_TRACE(mistake.name);
        vexon::Service service(kOpcode, "kit", "");
        service.function("scan", {"ms"}, [](unsigned) { return Zone(); });
        mistake.make(&service);
        EXPECT_FALSE(service.start());
        EXPECT_TRUE(contains(service.error(), mistake.error)) << service.error();
        EXPECT_TRUE(log_.contains(std::string("cannot start: ") + mistake.error));
    }
    EXPECT_TRUE(manager_.received().empty());

    // A function that reads its arguments by itself leaves it to the definition what they are.
    const std::string own =
        defined(kScan + std::string(R"(,{"name":"raw","args":[{"id":9,"name":"x","type":"cb"}]})"));
    service_.function("scan", {"ms"}, [](unsigned) { return Zone(); });
    service_.function("raw", [](const vexon::Call&) {});
    service_.definition(own);
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_TRUE(expect("\"api_def\":" + own + R"(,"Token":"a \"token\""})"));
    vexon::Service second(0x2b, "second", "");
    EXPECT_FALSE(second.start());
    EXPECT_TRUE(contains(second.error(), "another service of the process is started"));
}

// ---- Several services, and what is told

TEST_F(KitTest, OpcodesHaveFunctionsOfTheirOwn) {
    vexon::Api& other = service_.also(0x2b, "other", "", {3});
    service_.function("who", [] { return vexon::Reply().add("i", 1); });
    other.function("who", [] { return vexon::Reply().add("i", 2); });
    std::mutex mutex;
    std::vector<std::string> events;
    service_.on_state([&](const vexon::Event& event) {
        const std::lock_guard lock(mutex);
        events.push_back(std::to_string(static_cast<int>(event.kind)) + ' ' +
                         std::to_string(event.opcode) + ' ' + event.name + '=' + event.value + ' ' +
                         event.package + (event.granted ? " granted" : ""));
        if (event.name == "broken") throw std::runtime_error("a hook's mistake");
        if (event.kind == vexon::Event::Kind::kSessionEnd) throw 5;
        return event.kind == vexon::Event::Kind::kSessionStart && event.session != 6;
    });
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(wait_until([&] {
        const std::lock_guard lock(mutex);
        return events == std::vector<std::string>{"0 0 = "};
    }));
    manager_.start_session(6, {{kOpcode, {1}}});
    EXPECT_TRUE(expect(R"("session_id":6,"Result":"Failed")"));
    manager_.start_session(5, {{kOpcode, {1}}, {0x2b, {3}}});
    EXPECT_TRUE(expect(R"("session_id":5,"Result":"Success")"));
    manager_.ready_session(5, {{kOpcode, {1}}, {0x2b, {3}}});
    EXPECT_EQ(R"(0 0 {"i":1})", call("who"));
    const auto transaction = manager_.exec_task({5, 0x2b, 3, "who"});
    EXPECT_EQ(R"(0 0 {"i":2})", outcome(manager_.await_reply(transaction, kSoon)));
    manager_.send_to_all(manager::permission_change_message("P", true, {5, "pack"}));
    manager_.send_to_all(R"({"req_type":"state_change","state":"broken","value":"a:b"})");
    manager_.send_to_all(R"({"req_type":"system_setting_change","state":"s","value":""})");
    manager_.end_session(5);
    EXPECT_TRUE(expect(R"("end_session","session_id":5,"Result":"Success")"));
    service_.stop();
    EXPECT_TRUE(log_.contains("A hook of kit failed: a hook's mistake"));
    const std::lock_guard lock(mutex);
    EXPECT_EQ((std::vector<std::string>{"0 0 = ", "2 26 = ", "2 26 = ", "2 43 = ", "3 26 = ",
                                        "3 43 = ", "5 0 P= pack granted", "6 0 broken=a:b ",
                                        "7 0 s= ", "4 26 = ", "4 43 = ", "1 0 =stopping "}),
              events);
}

TEST_F(KitTest, QuestionsSayWhatBecameOfThem) {
    service_.function("ask", {"name"}, [](const vexon::Call& call, const std::string& name) {
        const vexon::Info info = call.info(name);
        return vexon::Reply()
            .add("permission", static_cast<int>(call.permission(name)))
            .add("info", static_cast<int>(info.outcome))
            .add("text", info.text)
            .add("monitor", call.monitor(name).text);
    });
    std::atomic<int> unsent{-1};
    service_.function("need", [&](const vexon::Call& call) {
        call.require_permission("NEEDED");
        manager_.stop();
        EXPECT_TRUE(wait_until(
            [] { return vexon::ask_permission(5, "x") == vexon::Permission::kNotSent; }));
        unsent = static_cast<int>(vexon::ask_info(5, "x").outcome);
    });
    manager_.grant("a\"b");
    manager_.set_info("a\"b", "SUCCESS:87");
    ASSERT_NO_FATAL_FAILURE(start_in_session());
    const auto ask = [this](const std::string& name) {
        return call("ask", R"([{"id":0,"type":"string","value":")" + name + "\"}]");
    };
    EXPECT_EQ(R"(0 0 {"permission":0,"info":0,"text":"87","monitor":"87"})", ask("a\\\"b"));
    EXPECT_EQ(R"(0 0 {"permission":1,"info":1,"text":"unknown","monitor":"unknown"})", ask("b"));
    EXPECT_EQ(R"(-3 -1 {"error":"the permission is missing: NEEDED"})", call("need"));
    manager_.set_drop(Step::Permission, true);
    EXPECT_EQ(R"(-3 -1 {"error":"the permission could not be asked for: NEEDED"})", call("need"));
    manager_.set_drop(Step::Permission, false);
    manager_.grant("NEEDED");
    send_call("need");
    EXPECT_TRUE(
        wait_until([&] { return unsent == static_cast<int>(vexon::Info::Outcome::kNotSent); }));
}

// ---- Staying in service

struct Trouble {
    const char* name;
    std::function<void(manager::SimulatedManager*)> make;
    std::function<void(manager::SimulatedManager*)> mend;
    const char* step;    // what is logged when it begins
    const char* reason;  // what is logged when it has lasted
};

void PrintTo(const Trouble& trouble, std::ostream* out) {
    *out << trouble.name;
}

class Outage : public KitTest, public ::testing::WithParamInterface<Trouble> {};

std::vector<Trouble> troubles() {
    const auto refuse = [](Step step) { return [step](auto* m) { m->refuse(step); }; };
    const auto accept = [](Step step) { return [step](auto* m) { m->accept(step); }; };
    const auto drop = [](Step step, bool on) { return [=](auto* m) { m->set_drop(step, on); }; };
    const auto start = [](auto* m) { m->start(); };
    static constexpr char kInit[] = R"(Sending message {"req_type":"INIT")";
    static constexpr char kAuth[] = R"(Sending message {"req_type":"AUTH")";
    static constexpr char kReady[] = R"(Sending message {"req_type":"REDY")";
    return {
        {"Absent", [](auto* m) { m->stop(); }, start, "Failed to connect", "no service id"},
        {"Killed", [](auto* m) { m->stop(Ending::Abrupt); }, start, "Failed to connect",
         "no service id from the Manager"},
        {"InitRefused", refuse(Step::Init), accept(Step::Init), kInit, "no service id"},
        {"AuthRefused", refuse(Step::Auth), accept(Step::Auth), kAuth,
         "the registration of kit failed"},
        {"ReadyRefused", refuse(Step::Ready), accept(Step::Ready), kReady,
         "the readiness of kit failed"},
        {"InitDropped", drop(Step::Init, true), drop(Step::Init, false), kInit, "does not answer"},
        {"AuthDropped", drop(Step::Auth, true), drop(Step::Auth, false), kAuth, "does not answer"},
        {"ReadyDropped", drop(Step::Ready, true), drop(Step::Ready, false), kReady,
         "does not answer"},
    };
}

// Once from the start, once in the midst of service.
TEST_P(Outage, IsSurvived) {
    add_answer();
    const Trouble& trouble = GetParam();
    trouble.make(&manager_);
    ASSERT_TRUE(service_.start());
    const std::string line = std::string("kit not in service: ");
    ASSERT_TRUE(log_.wait_for(trouble.reason, kSoon));
    ASSERT_TRUE(log_.wait_for("VEXON service init", kSoon, 4));
    EXPECT_EQ(1U, log_.count(line));
    EXPECT_FALSE(service_.wait_until_in_service(0ms));
    trouble.mend(&manager_);
    EXPECT_TRUE(serves());
    EXPECT_EQ(1U, log_.count("Service kit in service"));

    log_.clear();
    trouble.make(&manager_);
    try {
        manager_.close_clients(Ending::Abrupt);
    } catch (const manager::ManagerError&) {  // it has stopped
    }
    ASSERT_TRUE(log_.wait_for(trouble.reason, kSoon));
    EXPECT_EQ(1U, log_.count("Service kit out of service: "));
    trouble.mend(&manager_);
    EXPECT_TRUE(serves());
}

INSTANTIATE_TEST_SUITE_P(Of, Outage, ::testing::ValuesIn(troubles()),
                         [](const auto& trouble) { return std::string(trouble.param.name); });

TEST_F(KitTest, TheServiceIsBackAfterEveryLoss) {
    add_answer();
    std::atomic<int> losses{0};
    service_.on_state([&](const vexon::Event& event) {
        losses += event.kind == vexon::Event::Kind::kOutOfService;
    });
    ASSERT_NO_FATAL_FAILURE(start());
    const std::function<void()> ways[] = {
        [&] { manager_.close_clients(); },
        [&] { manager_.close_clients(Ending::Abrupt); },
        [&] { manager_.send_to_all(R"({"req_type":"INIT","service_id":-1})"); },
        [&] { manager_.send_to_all(R"({"req_type":"INIT","service_id":-9})"); },
        [&] {
            manager_.stop(Ending::Abrupt);
            manager_.start();
        },
    };
    int count = 0;
    for (const auto& lose : ways) {
        SCOPED_TRACE(count);
        EXPECT_TRUE(serves());
        lose();
        ++count;
        EXPECT_TRUE(wait_until([&] { return losses == count; }));
    }
    EXPECT_TRUE(serves());
    service_.stop();  // the hook's counter does not live as long
}

// ---- Stopping

TEST_F(KitTest, StopWaitsForFunctionsThatRun) {
    std::atomic<int> entered{0};
    std::atomic<int> left{0};
    {
        auto owned = std::make_unique<std::string>("alive");
        vexon::Service service(kOpcode, "kit", "");
        service.pace(kQuick);
        service.function("slow", [&](const vexon::Call& call) {
            ++entered;
            while (!call.is_stopping()) std::this_thread::sleep_for(1ms);
            std::this_thread::sleep_for(50ms);
            EXPECT_EQ("alive", *owned);
            ++left;
        });
        ASSERT_TRUE(service.start());
        ASSERT_TRUE(service.wait_until_in_service(kSoon));
        ASSERT_NO_FATAL_FAILURE(open_session(5));
        for (int i = 0; i < 8; ++i) send_call("slow");
        ASSERT_TRUE(wait_until([&] { return entered == 8; }));
        service.stop();
        EXPECT_EQ(8, left);
        owned = nullptr;
    }
    EXPECT_TRUE(expect("DINT"));
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon));
}

// The receive thread waits in a send, with the sessions locked.
TEST_F(KitTest, StopDoesNotWaitForAManagerThatDoesNotRead) {
    ASSERT_NO_FATAL_FAILURE(start());
    manager_.set_reading(false);
    for (int session = 1; session < 3000; ++session) {
        manager_.start_session(session, {{kOpcode, {kSubsystem}}});
    }
    std::size_t answers = 0;
    const auto is_stuck = [&] {
        const std::size_t before =
            std::exchange(answers, log_.count(R"(Sending message {"req_ty)"));
        std::this_thread::sleep_for(kNotComing);
        return answers > 1 && answers == before && answers < 3000;
    };
    ASSERT_TRUE(wait_until(is_stuck));
    std::future<void> stopped = std::async(std::launch::async, [this] { service_.stop(); });
    EXPECT_EQ(std::future_status::ready, stopped.wait_for(kSoon));
    manager_.set_reading(true);
}

// One that is asked for in the midst of it would never end: the next Manager does not know it.
TEST_F(KitTest, NoSessionStartsOnceStopHasEndedAll) {
    static std::atomic<bool> came{false};
    static std::atomic<bool> decided{false};
    std::atomic<int> sessions{0};
    service_.on_state([&](const vexon::Event& event) {
        sessions += event.kind == vexon::Event::Kind::kSessionStart;
        sessions -= event.kind == vexon::Event::Kind::kSessionEnd;
        if (event.kind != vexon::Event::Kind::kSessionEnd) return true;
        manager_.start_session(6, {{kOpcode, {kSubsystem}}});
        EXPECT_TRUE(wait_until([] { return came.load(); }));
        return true;
    });
    ASSERT_NO_FATAL_FAILURE(start_in_session());
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    __android_log_set_logger([](const __android_logger_data*, const char* text) {
        const std::string_view line = text;
        came = came || line == "session_id received is 6";
        decided = decided || line.rfind("Start session 6 with", 0) == 0;
        if (line.rfind("Ended session", 0) == 0) wait_until([] { return decided.load(); });
    });
    service_.stop();
    EXPECT_TRUE(decided);
    EXPECT_EQ(0, sessions);
}

// A Manager that changes the service id must not keep the service from leaving.
TEST_F(KitTest, StopLeavesUnderAnotherIdToo) {
    ASSERT_NO_FATAL_FAILURE(start());
    manager_.send_to_all(R"({"req_type":"INIT","service_id":77})");
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());
    service_.stop();
    EXPECT_TRUE(expect(R"({"req_type":"DINT","Service_Id":77})"));
    EXPECT_TRUE(manager_.wait_for_clients(0, kSoon));
}

TEST_F(KitTest, TasksThatArriveWhileItStopsFindTheServiceOrNothing) {
    std::atomic<bool> over{false};
    std::thread caller([&] {
        while (!over) {
            try {
                manager_.exec_task({5, kOpcode, kSubsystem, "touch"});
            } catch (const manager::ManagerError&) {  // nobody is there
                std::this_thread::yield();
            }
        }
    });
    for (int round = 0; round < 20; ++round) {
        auto touched = std::make_unique<std::atomic<int>>(0);
        vexon::Service service(kOpcode, "kit", "");
        service.pace(kQuick);
        service.function("touch", [&touched] { ++*touched; });
        ASSERT_TRUE(service.start());
        ASSERT_TRUE(service.wait_until_in_service(kSoon));
        ASSERT_NO_FATAL_FAILURE(open_session(5));
        EXPECT_TRUE(wait_until([&] { return *touched > 0; }));
        service.stop();
        touched = nullptr;
    }
    over = true;
    caller.join();
}

TEST_F(KitTest, OtherThreadsAndObjectsDoNotDisturbARun) {
    add_answer();
    std::future<int> ended = std::async(std::launch::async, [this] { return service_.run(); });
    ASSERT_TRUE(service_.wait_until_in_service(kSoon));
    vexon::Service(0x77, "never started", "").request_stop();
    EXPECT_EQ(std::future_status::timeout, ended.wait_for(50ms));
    EXPECT_TRUE(serves());
    service_.stop();
    ASSERT_EQ(std::future_status::ready, ended.wait_for(kSoon));
    EXPECT_EQ(0, ended.get());
}

// Pauses that do not grow would make hundreds of attempts in this time.
TEST_F(KitTest, PausesGrow) {
    manager_.stop();
    service_.pace({1ms, 1h, 0ms});
    ASSERT_TRUE(service_.start());
    ASSERT_TRUE(log_.wait_for("VEXON service init", kSoon, 4));
    std::this_thread::sleep_for(kNotComing);
    EXPECT_LT(log_.count("VEXON service init"), 15U);
}

TEST_F(KitTest, StopEndsEachStepOfAStart) {
    for (const Trouble& trouble : troubles()) {
        SCOPED_TRACE(trouble.name);
        trouble.make(&manager_);
        vexon::Service service(kOpcode, "kit", "");
        service.pace({1h, 1h, 0ms});  // waits for ever for an answer, and rests as long
        log_.clear();
        ASSERT_TRUE(service.start());
        ASSERT_TRUE(log_.wait_for(trouble.step, kSoon));
        service.stop();
        EXPECT_FALSE(log_.contains("kit not in service: the Manager does not answer"));
        trouble.mend(&manager_);
    }
    add_answer();
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_TRUE(serves());
}

TEST_F(KitTest, AFunctionMayStopAndAnotherServiceFollow) {
    service_.function("end", [&] { service_.stop(); });
    std::future<int> ended = std::async(std::launch::async, [&] { return service_.run(); });
    ASSERT_TRUE(expect("REDY"));
    ASSERT_TRUE(service_.wait_until_in_service(kSoon));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    send_call("end");
    ASSERT_EQ(std::future_status::ready, ended.wait_for(kSoon));
    EXPECT_EQ(0, ended.get());

    vexon::Service second(kOpcode, "second", "");
    second.function("end", [] { return vexon::Reply().add("second", true); });
    second.pace(kQuick);
    ASSERT_TRUE(second.start());
    ASSERT_TRUE(second.wait_until_in_service(kSoon));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    EXPECT_EQ(R"(0 0 {"second":true})", call("end"));
}

TEST_F(KitTest, SignalsEndRunAndIgnoredOnesDoNot) {
    const auto run = [this] {
        return std::async(std::launch::async, [this] { return service_.run(); });
    };
    for (const int number : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(number);
        ::signal(number, SIG_IGN);
        std::future<int> ended = run();
        ASSERT_TRUE(service_.wait_until_in_service(kSoon));
        ::kill(::getpid(), number);
        EXPECT_EQ(std::future_status::timeout, ended.wait_for(50ms));
        service_.request_stop();
        EXPECT_EQ(0, ended.get());
        EXPECT_EQ(SIG_IGN, ::signal(number, SIG_DFL));

        ended = run();
        ASSERT_TRUE(service_.wait_until_in_service(kSoon));
        ::kill(::getpid(), number);
        EXPECT_EQ(std::future_status::ready, ended.wait_for(kSoon));
        EXPECT_EQ(SIG_DFL, ::signal(number, SIG_DFL));
    }
}

}  // namespace
