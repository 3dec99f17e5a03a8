// SPDX-License-Identifier: Apache-2.0
// Decoding of a task's arguments, and the queues that hold them.

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "client/params/add_params.h"
#include "client/params/queues.h"
#include "client/params/struct_params.h"
#include "client/params/vector_params.h"
#include "tests/captured_log.h"
#include "vexon2_0.h"

namespace {

using Holder = std::shared_ptr<ValuesInterface>;
using Words = std::vector<std::pair<std::string, std::string>>;

std::string fill(std::string text, const Words& words) {
    for (const auto& [word, meaning] : words) {
        for (std::size_t at = 0; (at = text.find(word)) != std::string::npos;) {
            text.replace(at, word.size(), meaning);
        }
    }
    return text;
}

// Reads JSON in which these words are short for members of an argument.
Json::Value parse(const std::string& text) {
    Json::Value value;
    std::istringstream(fill(text, {{"$enum", R"("type":"enum","value":1)"},
                                   {"$struct", R"("type":"struct","members":)"},
                                   {"$vector", R"("type":"vector","vec_type":)"}})) >>
        value;
    return value;
}

std::string text_of(const Json::Value& value) {
    Json::StreamWriterBuilder one_line;
    one_line["indentation"] = "";
    return Json::writeString(one_line, value);
}

template <class T>
const T& held(const Holder& holder) {
    return std::static_pointer_cast<ParamValues<T>>(holder)->value;
}

template <class T>
std::string show(const Holder& holder, bool is_vector) {
    if (!is_vector) return text_of(held<T>(holder));
    Json::Value array(Json::arrayValue);
    for (const auto& value : held<std::vector<T>>(holder)) array.append(value);
    return text_of(array);
}

// The types in the order of their tags, from 1 on, with JSON values that are accepted as they are,
// out of range and of the wrong kind. Nothing beyond 32 bits passes for a 32-bit integer of JSON,
// so that what is too large for "uint32" and "int32" is of the wrong kind.
struct ScalarType {
    std::string (*show)(const Holder& holder, bool is_vector);
    std::string name;
    std::string accepted;
    std::string out_of_range;
    std::string wrong_kind;
};
const std::vector<ScalarType> kScalarTypes = {
    {show<unsigned char>, "uint8", "0,255", "256,4294967295", R"(-1,4294967296,0.5,"5",true)"},
    {show<unsigned short>, "uint16", "0,65535", "65536", R"(-1,4294967296,0.5,"5",true)"},
    {show<unsigned int>, "uint32", "0,4294967295", "", R"(-1,4294967296,0.5,"5",true)"},
    {show<std::uint64_t>, "uint64", "0,18446744073709551615", "",
     R"(-1,18446744073709551616,0.5,"5",true)"},
    {show<signed char>, "int8", "-128,127", "-129,128,2147483647", R"(2147483648,0.5,"5",true)"},
    {show<short>, "int16", "-32768,32767", "-32769,32768", R"(2147483648,0.5,"5",true)"},
    {show<int>, "int32", "-2147483648,2147483647", "", R"(-2147483649,2147483648,0.5,"5",true)"},
    {show<std::int64_t>, "int64", "-9223372036854775808,9223372036854775807", "",
     R"(9223372036854775808,18446744073709551615,0.5,"5",true)"},
    {show<double>, "double", "0.5,-1.5e+300", "", R"("5",true)"},
    {show<std::string>, "string", R"("","5 \"%s\"","a\u0000b")", "", "5,true"},
    {show<bool>, "boolean", "false,true", "", R"(0,1,"true")"},
    {show<int>, "enum", "-2147483648,2147483647", "", R"(-2147483649,2147483648,0.5,"5",true)"},
    {show<std::string>, "bnry_blb", R"("","AAEC/w==")", "", "5,true"},
};

// Returns "{key=tag:value ...}". Both forms must hold the same.
std::string show_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain) {
    EXPECT_EQ(typed.size(), plain.size());
    std::string text;
    for (const auto& [key, entry] : typed) {
        const auto& [tag, value] = entry;
        const Holder& other = plain.at(key);
        text += (text.empty() ? "" : " ") + std::to_string(key) + "=" + std::to_string(tag) + ":";
        if (tag == 16) {
            text += show_entries(held<vexon_type_map_t>(value), held<vexon_value_map_t>(other));
        } else if (tag == 30) {
            const auto& structs = held<std::vector<vexon_type_map_t>>(value);
            const auto& others = held<std::vector<vexon_value_map_t>>(other);
            std::size_t i = 0;
            text += "[";
            for (const auto& entries : structs) text += show_entries(entries, others.at(i++));
            text += "]";
            EXPECT_EQ(i, others.size());
        } else {
            EXPECT_EQ(value, other) << "one object in both forms";
            const auto index = static_cast<std::size_t>(tag - (tag > 16 ? 17 : 1));
            text += kScalarTypes.at(index).show(value, tag > 16);
        }
    }
    return "{" + text + "}";
}

// Returns the entries, behind the name and the number of arguments if there is a name.
std::string show_record(const vexon_func_call_info_t& info) {
    EXPECT_EQ(info.type_queue == nullptr, info.value_queue == nullptr);
    std::string text = info.func_name;
    if (!text.empty()) text += " " + std::to_string(info.num_of_args) + " ";
    if (info.type_queue == nullptr || info.value_queue == nullptr) return text + "nothing";
    return text + show_entries(*info.type_queue, *info.value_queue);
}

// The decoders, each filling a record from JSON.
using Decoder = int (*)(const std::string& json, vexon_func_call_info_t* info);

int request(const std::string& json, vexon_func_call_info_t* info) {
    static vexon_value_map_t old_values;
    static vexon_type_map_t old_types;
    *info = {"old", 9, &old_values, &old_types};
    return AddParamsToQueues(parse(json), info);
}

int args(const std::string& json, vexon_func_call_info_t* info) {
    const std::string count = std::to_string(parse("[" + json + "]").size());
    return request(R"({"func":{"num_of_args":)" + count + R"(,"args":[)" + json + "]}}", info);
}

int vector(const std::string& json, vexon_func_call_info_t* info) {
    return AddVectorParams(parse(json), 99, 42, info);
}

int member_vector(const std::string& json, vexon_func_call_info_t* info) {
    *info = {"", 0, new vexon_value_map_t, new vexon_type_map_t};
    return AddStructVectorParams(parse(json), 99, 42, info->type_queue, info->value_queue);
}

int members(const std::string& json, vexon_func_call_info_t* info) {
    *info = {"", 0, new vexon_value_map_t, new vexon_type_map_t};
    return AddStructParams(parse(json), 99, info->type_queue, info->value_queue);
}

struct Case {
    Decoder decode;
    std::string json;
    int result;
    std::string stored;
    std::string log;  // the one line that is expected, if any; "*" stands for one of any words
};

void expect_decoded(const Case& expected) {
    SCOPED_TRACE(expected.json);
    const CapturedLog captured;
    vexon_func_call_info_t info{};
    EXPECT_EQ(expected.decode(expected.json, &info), expected.result);
    EXPECT_EQ(show_record(info), expected.stored);
    std::string lines;
    for (const LogLine& line : captured.lines()) {
        EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.text;
        EXPECT_FALSE(line.has_tag) << line.text;
        lines += expected.log == "*" ? "*" : line.text;
    }
    EXPECT_EQ(lines, expected.log);
    ClearParamsFromQueues(info);
}

// Where a scalar may stand, what becomes of it and the messages that it has there. $first is an
// accepted value of its type.
const struct Place {
    std::string json;
    std::string stored;
    unsigned vector_tag;
    int failure;
    std::string stored_on_failure;
    std::string wrong_kind;
    std::string out_of_range;
} kPlaces[] = {
    {R"({"id":7,"type":"$name","value":$value})", "{7=$tag:$value}", 0, -1, "nothing", "Arg",
     "Out of range value for $name"},
    {R"({"id":7,$vector"$name","value":[$first,$value]})", "{7=$tag:[$first,$value]}", 16, -1,
     "nothing", "vector", "Out of range value receieved for $name"},
    {R"({$struct[{"id":7,"type":"$name","value":$value}]})", "{0=16:{7=$tag:$value}}", 0, -1,
     "nothing", "Arg", "Out of range value received for $name"},
    // A vector that cannot be decoded is missing in its struct, which is stored nevertheless.
    {R"({$struct[{"id":6,$enum},{"id":7,$vector"$name","value":[$first,$value]},{"id":8,$enum}]})",
     "{0=16:{6=12:1 7=$tag:[$first,$value] 8=12:1}}", 16, 0, "{0=16:{6=12:1 8=12:1}}", "vector",
     "Out of range value receieved for $name"},
};

TEST(Scalars, AreCheckedAndHeldByTypeInEveryPlace) {
    unsigned tag = 0;
    for (const ScalarType& type : kScalarTypes) {
        ++tag;
        const std::string first = type.accepted.substr(0, type.accepted.find(','));
        for (const Place& place : kPlaces) {
            const auto expect = [&](const std::string& values, int result,
                                    const std::string& stored, const std::string& log) {
                for (const Json::Value& value : parse("[" + values + "]")) {
                    const Words words = {{"$name", type.name},
                                         {"$tag", std::to_string(tag + place.vector_tag)},
                                         {"$first", first},
                                         {"$value", text_of(value)}};
                    expect_decoded({args, fill(place.json, words), result, fill(stored, words),
                                    fill(log, words)});
                }
            };
            expect(type.accepted, 0, place.stored, "");
            expect(type.out_of_range, place.failure, place.stored_on_failure, place.out_of_range);
            expect("null,[],{}," + type.wrong_kind, place.failure, place.stored_on_failure,
                   place.wrong_kind + " type $name and type of value do not match while parsing");
        }
    }
}

const char kNoTypeOfElements[] = "Json tag 'vec_type' is missing";
const char kNoArray[] = "Arg type vector and type of value do not match while parsing";
const char kWrongCount[] = "Num of args and size of arg array do not match while parsing";

const Case kCases[] = {
    // Integral numbers may be written either way.
    {args, R"({"id":1,"type":"double","value":5}, {"id":3,"type":"uint8","value":7.0},
        {"id":2,$vector"double","value":[-3,4294967296]}, {"id":4,"type":"int64","value":-7.0})",
     0, "{1=9:5.0 2=25:[-3.0,4294967296.0] 3=1:7 4=8:-7}", ""},
    // What has no storable type is skipped.
    {args, R"({"id":1,"type":"cb"}, {"id":2,"type":"none"}, {"id":3}, {"id":4,"type":"Struct"},
        {"id":5,"type":"float"}, {"id":-3,$enum}, {$enum}, {"id":6,$vector"cb","value":[1]},
        {"id":7,$vector"vector","value":[[1]]}, {"id":8,$vector null,"value":[1]})",
     0, "{-3=12:1 0=12:1}", ""},
    // The first of a key stays. The key of a struct is its position.
    {args, R"({"id":5,$struct[{"id":1,$enum}]}, {"id":4,$enum}, {"id":4,"type":"int8","value":2},
        {"id":4,$vector"enum","value":[]}, {"id":9,$struct[]}, {"id":9,$struct[]}, {"id":0,$enum})",
     0, "{0=16:{1=12:1} 4=12:1 5=16:{}}", ""},
    // What precedes a failure is kept, what follows is not read.
    {args, R"({$enum}, {$struct[]}, {"id":2,$vector"double","value":[]},
        {"id":3,"type":"int8","value":-129}, {"id":4,"type":"int16","value":-32769})",
     -1, "{0=12:1 1=16:{} 2=25:[]}", "Out of range value for int8"},
    {args, R"({"id":9,$enum}, 5, {"id":8,$enum})", -1, "{9=12:1}", "*"},
    // Vectors need an array, and hold all of their structs or are refused.
    {args, R"({"type":"vector","value":{}})", -1, "nothing", kNoArray},
    {args, R"({"id":6,$vector"struct","value":[]}, {"id":7,$vector"struct","value":[
        {"members":[{"id":1,$enum},{"id":2,"type":"cb"}]}, {"members":[]},
        {"members":[{"id":3,$struct[]}]}]})",
     0, "{6=30:[] 7=30:[{1=12:1}{}{3=16:{}}]}", ""},
    {args, R"({$vector"struct","value":[{"members":[]}, {}, {"members":[]}]})", -1, "nothing", ""},
    // Members are stored once or left out, or are refused with all that encloses them.
    {args, R"({$struct[null, {"id":1,"type":"float"}, {"id":2,"type":"cb"}, {"id":4,$enum},
        {"id":4,"type":"string","value":"x"}, {"id":4,$struct[]}, {"id":4,$vector"enum"},
        {"id":5,$vector"struct","value":[{"members":[]}]}, {"id":6,$vector"float","value":[1]},
        {"id":7,$vector"int16","value":"no array"}, {"id":8,$vector"int16","value":{"no":"array"}},
        {"id":9,$struct[{"id":9,$struct[{"id":2,$enum}]}]}]})",
     0, "{0=16:{4=12:1 7=22:[] 8=22:[] 9=16:{9=16:{2=12:1}}}}", ""},
    {args, R"({$struct[{$struct[{"type":"uint16","value":65536}]}]})", -1, "nothing", "*"},
    {args, R"({$struct{"a":{$enum}}})", -1, "nothing", ""},
    // JSON of a wrong kind.
    {args, R"({"id":2147483648,$enum})", -1, "nothing", "*"},
    {args, R"({"id":"1",$struct[]})", -1, "nothing", "*"},
    {args, R"({"type":["uint8"],"value":1})", -1, "nothing", "*"},
    {args, R"({$vector"struct","value":[{"members":[]},5]})", -1, "nothing", "*"},
    {args, R"({$struct[{"id":"1","type":"cb"}]})", -1, "nothing", "*"},
    {args, R"({$struct[{"type":{},"value":1}]})", -1, "nothing", "*"},
    // A request replaces the record and needs the right count.
    {request, R"({"func":{"name":"f"}})", 0, "f 0 nothing", ""},
    {request, R"({"func":{"name":"f","num_of_args":1,"args":[{}]}})", 0, "f 1 nothing", ""},
    {request, R"({"func":{"num_of_args":1,"args":[{$enum},1]}})", -1, "nothing", kWrongCount},
    {request, R"({"func":{"name":"f","num_of_args":1}})", -1, "f 1 nothing", kWrongCount},
    {request, R"({"func":{"num_of_args":-1,"name":"f"}})", -1, "f -1 nothing", kWrongCount},
    {request, R"({"func":{"name":"f","num_of_args":1,"args":{"a":{}}}})", -1, "f 1 nothing", "*"},
    {request, R"({"func":{"name":"f","num_of_args":"1"}})", -1, "f 0 nothing", "*"},
    {request, R"({"func":{"name":{},"num_of_args":0}})", -1, "nothing", "*"},
    {request, R"([1])", -1, "nothing", "*"},
    // The other decoders store under the given id and keep what precedes a failure.
    {vector, R"({"id":7,"vec_type":"uint8","value":[1,2]})", 0, "{42=17:[1,2]}", ""},
    {vector, R"({"vec_type":"uint8"})", 0, "{42=17:[]}", ""},
    {vector, R"({"value":[1]})", -1, "nothing", kNoTypeOfElements},
    {vector, R"({"vec_type":"none","value":[1]})", -1, "nothing", kNoTypeOfElements},
    {vector, R"({"vec_type":{},"value":[1]})", -1, "nothing", "*"},
    {member_vector, R"({"id":7,"vec_type":"uint8","value":[1,2]})", 0, "{42=17:[1,2]}", ""},
    {member_vector, R"({"vec_type":"cb","value":[1]})", 0, "{}", ""},
    {member_vector, R"({"value":[1]})", -1, "{}", ""},
    {member_vector, R"({"vec_type":"int8","value":["1"]})", -1, "{}", "*"},
    {member_vector, R"({"vec_type":{},"value":[1]})", -1, "{}", "*"},
    {members, R"([{"id":1,$enum}, {"id":2,"type":"uint8","value":256}, {"id":3,$enum}])", -1,
     "{1=12:1}", "Out of range value received for uint8"},
    {members, R"([{"id":1,$enum}, 5, {"id":3,$enum}])", -1, "{1=12:1}", "*"},
};

TEST(Decoders, StoreOrRefuseWithALogLine) {
    for (const Case& expected : kCases) expect_decoded(expected);
}

TEST(Queues, KeepTheFirstValueOfAKeyUntilTheyAreCleared) {
    const auto first = std::make_shared<ParamValues<int>>(1);
    const auto second = std::make_shared<ParamValues<int>>(2);
    QueueInsertion(nullptr, 1, first, VEXON_TYPE_INT32);
    value_QueueInsertion(nullptr, 1, first);

    vexon_func_call_info_t info{};
    ClearParamsFromQueues(info);
    QueueInsertion(&info, 1, first, VEXON_TYPE_INT32);
    EXPECT_EQ(info.value_queue, nullptr);
    QueueInsertion(&info, 1, second, VEXON_TYPE_ENUM);
    value_QueueInsertion(&info, 1, first);
    value_QueueInsertion(&info, 1, second);
    EXPECT_EQ(show_record(info), "{1=7:1}");
    ClearParamsFromQueues(info);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(second.use_count(), 1);
}

}  // namespace
