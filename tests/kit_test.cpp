// SPDX-License-Identifier: Apache-2.0
// The headers for authors of services: typed access to arguments, and the builder of replies.

#include <json/json.h>
#include <vexon2_0_arguments.h>
#include <vexon2_0_reply.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <utility>

#include "service_test.h"

namespace {

Json::Value parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

// ---------------------------------------------------------------------------------------------
// Typed access

// What a reply may hold for a value.
template <class T>
const T& writable(const T& value) {
    return value;
}

vexon::Object writable(const vexon::Struct& from) {
    vexon::Object object;
    for (const vexon::Member member : vexon::members(from)) {
        const std::string name = std::to_string(member.key());
        if (const int* number = member.as<vexon::Enum>()) object.add(name, *number);
        if (const auto* text = member.as<std::string>()) object.add(name, *text);
        if (const auto* inner = member.as<vexon::Struct>()) object.add(name, writable(*inner));
    }
    return object;
}

std::vector<vexon::Object> writable(const std::vector<vexon::Struct>& from) {
    std::vector<vexon::Object> objects;
    for (const vexon::Struct& one : from) objects.push_back(writable(one));
    return objects;
}

// Adds the argument to the reply, named by its key, if it is a T. Returns whether it is.
template <class T>
bool echo(const vexon_func_call_info_t& args, int key, vexon::Reply* reply) {
    const vexon::Held<T>* value = vexon::get<T>(args, key);
    EXPECT_EQ(value, vexon::get_shared<T>(args, key).get());
    for (const vexon::Member member : vexon::members(args)) {
        if (member.key() != key) continue;
        EXPECT_EQ(value, member.as<T>());
        EXPECT_EQ(value, member.as_shared<T>().get());
        EXPECT_EQ(member.tag(), vexon::tag_of(args, key));
    }
    if (value == nullptr) return false;
    EXPECT_EQ(vexon::kTag<T>, vexon::tag_of(args, key));
    reply->add(std::to_string(key), writable(*value));
    return true;
}

using Echo = bool (*)(const vexon_func_call_info_t& args, int key, vexon::Reply* reply);

template <class... T>
std::vector<Echo> echoes_of() {
    return {echo<T>..., echo<std::vector<T>>...};
}

const std::vector<Echo> kEchoes =
    echoes_of<unsigned char, unsigned short, unsigned int, std::uint64_t, signed char, short, int,
              std::int64_t, double, std::string, bool, vexon::Enum, vexon::Blob, vexon::Struct>();

// Asks for every argument, and for one that is missing, as each type.
int echo_all(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    const auto range = vexon::members(args);
    const auto count = static_cast<int>(std::distance(range.begin(), range.end()));
    EXPECT_EQ(count == 0, range.empty());
    EXPECT_EQ(VEXON_TYPE_NONE, vexon::tag_of(args, count));
    vexon::Reply reply;
    for (int key = 0; key <= count; ++key) {
        const auto matches = std::count_if(kEchoes.begin(), kEchoes.end(),
                                           [&](Echo echo) { return echo(args, key, &reply); });
        EXPECT_EQ(key < count ? 1 : 0, matches) << key;
    }
    call->func = std::move(reply).text();
    return 0;
}

// Each type with the JSON of a value as it is sent, and as echo_all() answers it.
struct Sent {
    std::string type;
    std::string value;
    std::string answer;
};

const Sent kSent[] = {
    {"uint8", "255", "255"},
    {"uint16", "65535", "65535"},
    {"uint32", "4294967295", "4294967295"},
    {"uint64", "18446744073709551615", "18446744073709551615"},
    {"int8", "-128", "-128"},
    {"int16", "-32768", "-32768"},
    {"int32", "-2147483648", "-2147483648"},
    {"int64", "-9223372036854775808", "-9223372036854775808"},
    {"double", "0.1", "0.1"},
    {"string", R"("5 \"%s\" a\u0000b")", R"("5 \"%s\" a\u0000b")"},
    {"boolean", "true", "true"},
    {"enum", "7", "7"},
    {"bnry_blb", R"("AAEC/w==")", R"("AAEC/w==")"},
    {"struct",
     R"([{"id":3,"type":"string","value":"b"},{"id":-2,"type":"enum","value":1},
         {"id":9,"type":"struct","members":[{"id":4,"type":"enum","value":2}]}])",
     R"({"-2":1,"3":"b","9":{"4":2}})"},
};

TEST_F(ServiceTest, EveryTypeIsReadAsItselfAndAsNothingElse) {
    std::string args;
    std::string answer;
    int key = 0;  // also the position, which is what counts for structs
    const auto send = [&](const std::string& members, const std::string& expected) {
        const std::string id = std::to_string(key++);
        args += (args.empty() ? "[{\"id\":" : ",{\"id\":") + id + "," + members + "}";
        answer += (answer.empty() ? "{\"" : ",\"") + id + "\":" + expected;
    };
    for (const auto& [type, value, expected] : kSent) {
        const bool is_struct = type == "struct";
        const std::string element = is_struct ? "{\"members\":" + value + "}" : value;
        send("\"type\":\"" + type + (is_struct ? "\",\"members\":" : "\",\"value\":") + value,
             expected);
        send(R"("type":"vector","vec_type":")" + type + R"(","value":[)" + element + "," + element +
                 "]",
             "[" + expected + "," + expected + "]");
    }

    ASSERT_NO_FATAL_FAILURE(init_and_offer(echo_all));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    const std::pair<std::string, std::string> calls[] = {{args + "]", answer + "}"}, {"[]", "{}"}};
    for (const auto& [sent, expected] : calls) {
        SCOPED_TRACE(sent);
        const auto reply =
            manager_.await_reply(manager_.exec_task({5, kOpcode, 1, "echo", sent}), kSoon);
        ASSERT_TRUE(reply);
        EXPECT_EQ(parse(expected), parse(reply->packet.text)["func"]);
    }
}

TEST_F(ServiceTest, AValueThatWasKeptOutlivesItsCall) {
    static std::promise<std::shared_ptr<const std::string>> kept;
    ASSERT_NO_FATAL_FAILURE(init_and_offer([](_vexon_call_info_t*, vexon_func_call_info_t args) {
        kept.set_value(vexon::get_shared<std::string>(args, 4));
        return 0;
    }));
    ASSERT_NO_FATAL_FAILURE(open_session(5));
    const auto task =
        manager_.exec_task({5, kOpcode, 1, "f", R"([{"id":4,"type":"string","value":"kept"}])"});
    ASSERT_TRUE(manager_.await_reply(task, kSoon));
    const auto value = kept.get_future().get();
    ASSERT_NE(nullptr, value);
    EXPECT_EQ("kept", *value);
    EXPECT_EQ(1, value.use_count());
}

// ---------------------------------------------------------------------------------------------
// Replies

template <class T>
std::string written(const T& value) {
    return vexon::Reply().add("v", value).text();
}

template <class T>
using Limits = std::numeric_limits<T>;

// Returns U+FFFD that many times.
std::string replacements(int count) {
    return count == 0 ? "" : "\xef\xbf\xbd" + replacements(count - 1);
}

// The first and last characters of each form that UTF-8 has beyond ASCII.
const std::string kBoundaries =
    "\xc2\x80\xdf\xbf\xe0\xa0\x80\xe0\xbf\xbf\xe1\x80\x80\xec\xbf\xbf\xed\x80\x80\xed\x9f\xbf"
    "\xee\x80\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf0\xbf\xbf\xbf\xf1\x80\x80\x80\xf3\xbf\xbf\xbf"
    "\xf4\x80\x80\x80\xf4\x8f\xbf\xbf";
const std::string kHarmful("\0\x01\x1f\"\\/\b\t\n\r\x7f end", 15);

TEST(Reply, ValuesAreReadBackAsTheyWereWritten) {
    const std::pair<std::string, Json::Value> values[] = {
        {written(kHarmful), kHarmful},
        {written(kBoundaries), kBoundaries},
        // No UTF-8: wrong bytes, cut off, longer than need be, surrogates and too large.
        {written("a\xff\x80z"), "a" + replacements(2) + "z"},
        {written(std::string_view("\xe2\x82\xac", 2)), replacements(2)},
        {written("\xc3\"\xf0\x9f\x98\n"), replacements(1) + "\"" + replacements(3) + "\n"},
        {written("\xc0\xaf\xe0\x9f\xbf"), replacements(5)},
        {written("\xc1\xbf\xe0\x80\x80\xf0\x8f\xbf\xbf"), replacements(9)},
        {written("\xed\xa0\x80"), replacements(3)},
        {written("\xf4\x90\x80\x80\xf5\x80\x80\x80"), replacements(8)},
        {written(""), ""},
        {written(static_cast<const char*>(nullptr)), Json::Value::nullSingleton()},
        {written(nullptr), Json::Value::nullSingleton()},
        {written(false), false},
        {written(Limits<unsigned char>::max()), 255},
        {written(Limits<signed char>::min()), -128},
        {written(Limits<short>::min()), -32768},
        {written(Limits<unsigned>::max()), Json::Int64{4294967295}},
        {written(Limits<std::uint64_t>::max()), Limits<Json::UInt64>::max()},
        {written(Limits<std::int64_t>::min()), Limits<Json::Int64>::min()},
        {written(Limits<long long>::max()), Limits<Json::Int64>::max()},
        {written(std::vector<bool>{true, false}), parse("[true,false]")},
        {written(std::vector<std::vector<unsigned char>>{{}, {0, 65}}), parse("[[],[0,65]]")},
        {written(std::vector<const char*>{"\"", nullptr}), parse(R"(["\"",null])")},
        {written(vexon::Object()), parse("{}")},
        {written(vexon::Object().add("a\"\n", 1).add("b", vexon::Object().add("", -1))),
         parse(R"({"a\"\n":1,"b":{"":-1}})")},
        {written(std::vector<vexon::Object>(2, vexon::Object().add("c", "d"))),
         parse(R"([{"c":"d"},{"c":"d"}])")},
    };
    for (const auto& [text, expected] : values) {
        SCOPED_TRACE(text);
        EXPECT_EQ(expected, parse("{" + text + "}")["v"]);
        const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' '; };
        EXPECT_TRUE(std::none_of(text.begin(), text.end(), is_control));
    }
    EXPECT_EQ("", vexon::Reply().text());
}

// Sets the locale of numbers for its lifetime, if the system has it.
class NumericLocale {
  public:
    explicit NumericLocale(const char* name) : is_set_(std::setlocale(LC_NUMERIC, name)) {}
    ~NumericLocale() { std::setlocale(LC_NUMERIC, "C"); }
    NumericLocale(const NumericLocale&) = delete;
    NumericLocale& operator=(const NumericLocale&) = delete;

    bool is_set() const { return is_set_; }

  private:
    bool is_set_;
};

TEST(Reply, DoublesAreWrittenShortAndExactInEveryLocale) {
    const std::pair<double, std::string> doubles[] = {
        {0.1, "0.1"},
        {0.1 + 0.2, "0.30000000000000004"},
        {20, "20.0"},
        {-0.0, "-0.0"},
        {1e15, "1e+15"},
        {9007199254740993, "9007199254740992.0"},
        {1e300, "1e+300"},
        {-Limits<double>::max(), "-1.7976931348623157e+308"},
        {Limits<double>::min(), "2.2250738585072014e-308"},
        {2.2250738585072009e-308, "2.225073858507201e-308"},
        {Limits<double>::denorm_min(), "5e-324"},
        {Limits<double>::quiet_NaN(), "null"},
        {-Limits<double>::infinity(), "null"},
    };
    // Those after the first have a comma, or a character of two bytes, for a decimal point.
    for (const char* name : {"C", "de_DE.UTF-8", "fr_FR.UTF-8", "ps_AF"}) {
        SCOPED_TRACE(name);
        const NumericLocale locale(name);
        if (!locale.is_set()) continue;
        for (const auto& [value, text] : doubles) EXPECT_EQ("\"v\":" + text, written(value));
    }
    for (const auto& [value, text] : doubles) {
        if (!std::isfinite(value)) continue;
        const double read = parse("{" + written(value) + "}")["v"].asDouble();
        EXPECT_EQ(value, read);
        EXPECT_EQ(std::signbit(value), std::signbit(read)) << text;
    }
}

}  // namespace
