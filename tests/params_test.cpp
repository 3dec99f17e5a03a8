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
using Texts = std::vector<std::string>;
using Words = std::vector<std::pair<std::string, std::string>>;

Json::Value parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
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

// One type, with JSON values that are accepted as they are, out of range and of the wrong kind.
struct ScalarType {
    std::string (*show)(const Holder& holder, bool is_vector);
    std::string name;
    std::string accepted;
    std::string out_of_range;
    std::string wrong_kind;
};

template <class T>
ScalarType scalar(const char* name, const char* accepted, const char* out_of_range,
                  const char* wrong_kind) {
    return {show<T>, name, accepted, out_of_range, wrong_kind};
}

// In the order of their tags, from 1 on. Nothing beyond 32 bits passes for a 32-bit integer of
// JSON, so that what is too large for "uint32" and "int32" is of the wrong kind.
const std::vector<ScalarType> kScalarTypes = {
    scalar<unsigned char>("uint8", "0,255", "256,4294967295", R"(-1,4294967296,0.5,"5",true)"),
    scalar<unsigned short>("uint16", "0,65535", "65536", R"(-1,4294967296,0.5,"5",true)"),
    scalar<unsigned int>("uint32", "0,4294967295", "", R"(-1,4294967296,0.5,"5",true)"),
    scalar<unsigned long>("uint64", "0,18446744073709551615", "",
                          R"(-1,18446744073709551616,0.5,"5",true)"),
    scalar<signed char>("int8", "-128,127", "-129,128,2147483647", R"(2147483648,0.5,"5",true)"),
    scalar<short>("int16", "-32768,32767", "-32769,32768", R"(2147483648,0.5,"5",true)"),
    scalar<int>("int32", "-2147483648,2147483647", "", R"(-2147483649,2147483648,0.5,"5",true)"),
    scalar<long>("int64", "-9223372036854775808,9223372036854775807", "",
                 R"(9223372036854775808,18446744073709551615,0.5,"5",true)"),
    scalar<double>("double", "0.5,-1.5e+300", "", R"("5",true)"),
    scalar<std::string>("string", R"("","5 \"%s\"","a\u0000b")", "", "5,true"),
    scalar<bool>("boolean", "false,true", "", R"(0,1,"true")"),
    scalar<int>("enum", "-2147483648,2147483647", "", R"(-2147483649,2147483648,0.5,"5",true)"),
    scalar<std::string>("bnry_blb", R"("","AAEC/w==")", "", "5,true"),
};

std::string show_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain);

std::string show_value(vexon_data_type_t tag, const Holder& typed, const Holder& plain) {
    if (tag == 16) {
        return show_entries(held<vexon_type_map_t>(typed), held<vexon_value_map_t>(plain));
    }
    if (tag == 30) {
        const auto& typed_structs = held<std::vector<vexon_type_map_t>>(typed);
        const auto& plain_structs = held<std::vector<vexon_value_map_t>>(plain);
        EXPECT_EQ(typed_structs.size(), plain_structs.size());
        std::string text;
        for (std::size_t i = 0; i < typed_structs.size(); ++i) {
            text += show_entries(typed_structs[i], plain_structs.at(i));
        }
        return "[" + text + "]";
    }
    EXPECT_EQ(typed, plain) << "one object in both forms";
    const bool is_vector = tag > 16;
    const auto index = static_cast<std::size_t>(tag - (is_vector ? 17 : 1));
    return kScalarTypes.at(index).show(typed, is_vector);
}

// Returns "{key=tag:value ...}". Both forms must hold the same.
std::string show_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain) {
    EXPECT_EQ(typed.size(), plain.size());
    std::string text;
    for (const auto& [key, entry] : typed) {
        text += (text.empty() ? "" : " ") + std::to_string(key) + "=" +
                std::to_string(entry.first) + ":" +
                show_value(entry.first, entry.second, plain.at(key));
    }
    return "{" + text + "}";
}

// Stands for one line of any words.
const Texts kOneLine = {"*"};

// One call, and the log of its decoding.
struct Call {
    ~Call() { ClearParamsFromQueues(info); }

    std::string stored() const {
        EXPECT_EQ(info.type_queue == nullptr, info.value_queue == nullptr);
        if (info.type_queue == nullptr || info.value_queue == nullptr) return "nothing";
        return show_entries(*info.type_queue, *info.value_queue);
    }

    void expect_log(const Texts& expected) const {
        Texts texts;
        for (const LogLine& line : log.lines()) {
            EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.text;
            EXPECT_FALSE(line.has_tag) << line.text;
            texts.push_back(expected == kOneLine ? "*" : line.text);
        }
        EXPECT_EQ(texts, expected);
    }

    CapturedLog log;
    vexon_func_call_info_t info{};
};

Json::Value request_with(const std::string& args) {
    Json::Value request;
    Json::Value& func = request["func"];
    func["args"] = parse("[" + args + "]");
    func["num_of_args"] = func["args"].size();
    return request;
}

void expect_decoded(int result, const std::string& stored, const Texts& log,
                    const std::string& args) {
    SCOPED_TRACE(args);
    Call call;
    EXPECT_EQ(AddParamsToQueues(request_with(args), &call.info), result);
    EXPECT_EQ(call.stored(), stored);
    call.expect_log(log);
}

std::string fill(std::string text, const Words& words) {
    for (const auto& [word, meaning] : words) {
        const std::size_t at = text.find(word);
        if (at != std::string::npos) text.replace(at, word.size(), meaning);
    }
    return text;
}

// Where a scalar may stand, what becomes of it and which words its messages have there. $first is
// an accepted value of its type.
const struct Place {
    std::string args;
    std::string stored;
    unsigned vector_tag;
    int failure;
    std::string stored_on_failure;
    std::string wrong_kind;
    std::string out_of_range;
} kPlaces[] = {
    {R"({"id":7,"type":"$name","value":$value})", "{7=$tag:$value}", 0, -1, "nothing", "Arg type ",
     "Out of range value for "},
    {R"({"id":7,"type":"vector","vec_type":"$name","value":[$first,$value]})",
     "{7=$tag:[$first,$value]}", 16, -1, "nothing", "vector type ",
     "Out of range value receieved for "},
    {R"({"type":"struct","members":[{"id":7,"type":"$name","value":$value}]})",
     "{0=16:{7=$tag:$value}}", 0, -1, "nothing", "Arg type ", "Out of range value received for "},
    // A vector that cannot be decoded is missing in its struct, which is stored nevertheless.
    {R"({"type":"struct","members":[{"id":6,"type":"enum","value":1},
            {"id":7,"type":"vector","vec_type":"$name","value":[$first,$value]},
            {"id":8,"type":"enum","value":1}]})",
     "{0=16:{6=12:1 7=$tag:[$first,$value] 8=12:1}}", 16, 0, "{0=16:{6=12:1 8=12:1}}",
     "vector type ", "Out of range value receieved for "},
};

TEST(Scalars, AreCheckedAndHeldByTypeInEveryPlace) {
    for (std::size_t i = 0; i < kScalarTypes.size(); ++i) {
        const ScalarType& type = kScalarTypes[i];
        const Json::Value accepted = parse("[" + type.accepted + "]");
        for (const Place& place : kPlaces) {
            const auto expect = [&](const Json::Value& value, int result, const std::string& stored,
                                    const Texts& log) {
                const Words words = {{"$name", type.name},
                                     {"$tag", std::to_string(i + 1 + place.vector_tag)},
                                     {"$first", text_of(accepted[0])},
                                     {"$value", text_of(value)}};
                expect_decoded(result, fill(stored, words), log, fill(place.args, words));
            };
            for (const Json::Value& value : accepted) expect(value, 0, place.stored, {});
            for (const Json::Value& value : parse("[" + type.out_of_range + "]")) {
                expect(value, place.failure, place.stored_on_failure,
                       {place.out_of_range + type.name});
            }
            for (const Json::Value& value : parse("[null,[],{}," + type.wrong_kind + "]")) {
                expect(value, place.failure, place.stored_on_failure,
                       {place.wrong_kind + type.name +
                        " and type of value do not match while parsing"});
            }
        }
    }
}

TEST(Arguments, OfIntegralNumbersMayBeWrittenEitherWay) {
    expect_decoded(0, "{1=9:5.0 2=25:[-3.0,4294967296.0] 3=1:7 4=8:-7}", {}, R"(
        {"id":1,"type":"double","value":5},
        {"id":2,"type":"vector","vec_type":"double","value":[-3,4294967296]},
        {"id":3,"type":"uint8","value":7.0}, {"id":4,"type":"int64","value":-7.0})");
}

TEST(Arguments, OfNoStorableTypeAreSkipped) {
    expect_decoded(0, "nothing", {}, "");
    expect_decoded(0, "nothing", {}, R"({"id":1,"type":"cb","value":1}, {"id":2,"type":"none"},
        {"id":3}, {"id":4,"type":"Struct","members":5}, {"id":5,"type":"Struct","value":[]})");
    expect_decoded(0, "{-3=1:9 0=1:8}", {}, R"({"id":1,"type":"float","value":1},
        {"id":-3,"type":"uint8","value":9}, {"type":"uint8","value":8})");
}

TEST(Arguments, KeepTheFirstOfAKeyWhichIsThePositionForAStruct) {
    expect_decoded(0, "{4=1:1}", {}, R"(
        {"id":4,"type":"uint8","value":1}, {"id":4,"type":"string","value":"x"},
        {"id":4,"type":"vector","vec_type":"enum","value":[]}, {"id":4,"type":"enum","value":2},
        {"id":0,"type":"struct","members":[]})");
    expect_decoded(0, "{0=16:{1=12:1} 1=16:{}}", {}, R"(
        {"id":5,"type":"struct","members":[{"id":1,"type":"enum","value":1}]},
        {"id":9,"type":"struct","members":[]}, {"id":1,"type":"enum","value":1})");
}

TEST(Arguments, BeforeAFailureAreKeptAndThoseBehindAreNotRead) {
    expect_decoded(-1, "{0=1:1 1=16:{} 2=25:[]}", {"Out of range value for int8"}, R"(
        {"id":0,"type":"uint8","value":1}, {"type":"struct","members":[]},
        {"id":2,"type":"vector","vec_type":"double","value":[]},
        {"id":3,"type":"int8","value":-129}, {"id":4,"type":"int16","value":-32769})");
}

TEST(Vectors, NeedAnArrayAndAnElementType) {
    const Texts missing = {"Json tag 'vec_type' is missing"};
    const Texts mismatch = {"Arg type vector and type of value do not match while parsing"};
    expect_decoded(-1, "nothing", missing, R"({"type":"vector","value":[1]})");
    expect_decoded(-1, "nothing", missing, R"({"type":"vector","vec_type":"none","value":[1]})");
    expect_decoded(-1, "nothing", mismatch, R"({"type":"vector","value":{}})");
    expect_decoded(-1, "nothing", mismatch, R"({"type":"vector","vec_type":"cb"})");
    expect_decoded(0, "nothing", {}, R"({"type":"vector","vec_type":"cb","value":[1]},
        {"type":"vector","vec_type":"vector","value":[[1]]},
        {"type":"vector","vec_type":"float","value":[1]},
        {"type":"vector","vec_type":null,"value":[1]})");
}

TEST(Vectors, OfStructsHoldAllOfThemOrAreRefused) {
    expect_decoded(0, "{6=30:[] 7=30:[{1=12:1}{}{3=16:{}}]}", {}, R"(
        {"id":6,"type":"vector","vec_type":"struct","value":[]},
        {"id":7,"type":"vector","vec_type":"struct","value":[
            {"members":[{"id":1,"type":"enum","value":1},{"id":2,"type":"cb"}]},
            {"members":[]}, {"members":[{"id":3,"type":"struct","members":[]}]}]})");
    expect_decoded(-1, "nothing", {"Out of range value received for int8"}, R"(
        {"id":7,"type":"vector","vec_type":"struct","value":[
            {"members":[]}, {"members":[{"id":1,"type":"int8","value":128}]}, {"members":[]}]})");
    expect_decoded(-1, "nothing", {}, R"({"type":"vector","vec_type":"struct","value":[{}]})");
}

TEST(Members, AreStoredOnceOrLeftOut) {
    expect_decoded(0, "{0=16:{4=8:-4}}", {}, R"({"type":"struct","members":[null,
        {"id":1,"type":"float","value":1}, {"id":2,"type":"cb"}, {"id":3,"type":"none"},
        {"id":4,"type":"int64","value":-4}, {"id":4,"type":"string","value":"x"},
        {"id":4,"type":"struct","members":[]},
        {"id":4,"type":"vector","vec_type":"enum","value":[2]}]})");
    expect_decoded(0, "{0=16:{7=22:[] 8=22:[]}}", {}, R"({"type":"struct","members":[
        {"id":1,"type":"vector","value":[1]}, {"id":2,"type":"vector","vec_type":"none"},
        {"id":3,"type":"vector","vec_type":"struct","value":[{"members":[]}]},
        {"id":4,"type":"vector","vec_type":"vector","value":[[1]]},
        {"id":5,"type":"vector","vec_type":"cb","value":[1]},
        {"id":6,"type":"vector","vec_type":"float","value":[1]},
        {"id":7,"type":"vector","vec_type":"int16","value":"no array"},
        {"id":8,"type":"vector","vec_type":"int16","value":{"no":"array"}}]})");
}

TEST(Members, OfNestedStructsAreStoredOrRefusedWithAllThatEncloses) {
    expect_decoded(0, "{0=16:{1=16:{1=16:{2=11:true}}}}", {}, R"({"type":"struct","members":[
        {"id":1,"type":"struct","members":[
            {"id":1,"type":"struct","members":[{"id":2,"type":"boolean","value":true}]}]}]})");
    expect_decoded(-1, "{9=12:1}", {"Out of range value received for uint16"}, R"(
        {"id":9,"type":"enum","value":1}, {"type":"struct","members":[
            {"id":1,"type":"struct","members":[{"id":1,"type":"uint16","value":65536}]}]})");
    for (const char* no_array : {"null", "\"text\"", R"({"id":1,"type":"enum","value":1})"}) {
        const std::string members = std::string(R"("type":"struct","members":)") + no_array;
        expect_decoded(-1, "nothing", {}, "{" + members + "}");
        expect_decoded(-1, "nothing", {}, R"({"type":"struct","members":[{)" + members + "}]}");
    }
}

TEST(MalformedJson, IsRefusedWithALogLine) {
    for (const char* argument :
         {"5", "[1]", R"({"id":"1","type":"uint8","value":1})",
          R"({"id":2147483648,"type":"uint8","value":1})",
          R"({"id":[],"type":"vector","vec_type":"uint8","value":[]})",
          R"({"id":"1","type":"struct","members":[]})", R"({"id":"1","type":"cb"})",
          R"({"id":1,"type":["uint8"],"value":1})",
          R"({"id":1,"type":"vector","vec_type":{},"value":[1]})",
          R"({"id":1,"type":"vector","vec_type":"struct","value":[{"members":[]},5]})",
          R"({"id":1,"type":"struct","members":[5]})",
          R"({"id":1,"type":"struct","members":[{"id":"1","type":"uint8","value":1}]})",
          R"({"id":1,"type":"struct","members":[{"id":"1","type":"cb"}]})",
          R"({"id":1,"type":"struct","members":[{"id":1,"type":{},"value":1}]})"}) {
        expect_decoded(-1, "{9=12:1}", kOneLine,
                       std::string(R"({"id":9,"type":"enum","value":1},)") + argument);
    }
    expect_decoded(0, "{0=16:{}}", kOneLine, R"({"type":"struct","members":[
        {"id":1,"type":"vector","vec_type":[],"value":[1]}]})");
}

TEST(Requests, ReplaceTheRecordAndNeedTheRightCount) {
    const Texts mismatch = {"Num of args and size of arg array do not match while parsing"};
    const struct {
        const char* func;
        int result;
        const char* name;
        int num_of_args;
        Texts log;
    } cases[] = {
        {R"({"name":"f","num_of_args":0,"args":[]})", 0, "f", 0, {}},
        {R"({"name":"f"})", 0, "f", 0, {}},
        {R"({"name":"f","num_of_args":1,"args":[{"type":"cb"}]})", 0, "f", 1, {}},
        {R"({"name":"f","num_of_args":2,"args":[{"type":"enum","value":1},1,1]})", -1, "f", 2,
         mismatch},
        {R"({"name":"f","num_of_args":1,"args":[]})", -1, "f", 1, mismatch},
        {R"({"name":"f","num_of_args":-1,"args":[]})", -1, "f", -1, mismatch},
        {R"({"name":"f","num_of_args":1,"args":{"a":{"type":"enum","value":1}}})", -1, "f", 1,
         kOneLine},
        {R"({"name":"f","num_of_args":"1","args":[{"type":"cb"}]})", -1, "f", 0, kOneLine},
        {R"({"name":{},"num_of_args":0,"args":[]})", -1, "", 0, kOneLine},
        {R"("text")", -1, "", 0, kOneLine},
        {R"([1])", -1, "", 0, kOneLine},
    };
    for (const auto& [func, result, name, num_of_args, log] : cases) {
        SCOPED_TRACE(func);
        vexon_type_map_t old_types;
        vexon_value_map_t old_values;
        Call call;
        call.info = {"old", 9, &old_values, &old_types};
        const Json::Value request = parse(std::string(R"({"func":)") + func + "}");
        EXPECT_EQ(AddParamsToQueues(request, &call.info), result);
        EXPECT_EQ(call.stored(), "nothing");
        EXPECT_EQ(call.info.func_name, name);
        EXPECT_EQ(call.info.num_of_args, num_of_args);
        call.expect_log(log);
    }
    Call call;
    EXPECT_EQ(AddParamsToQueues(parse("[1]"), &call.info), -1);
    call.expect_log(kOneLine);
}

TEST(VectorDecoders, StoreUnderTheGivenIdAndIgnoreTheSecondArgument) {
    const struct {
        const char* vector;
        int result;
        const char* stored;
        Texts log;
        Texts member_log;
    } cases[] = {
        {R"({"id":7,"vec_type":"uint8","value":[1,2]})", 0, "{42=17:[1,2]}", {}, {}},
        {R"({"vec_type":"uint8"})", 0, "{42=17:[]}", {}, {}},
        {R"({"vec_type":"cb","value":[1]})", 0, "{}", {}, {}},
        {R"({"value":[1]})", -1, "{}", {"Json tag 'vec_type' is missing"}, {}},
        {R"({"vec_type":{},"value":[1]})", -1, "{}", kOneLine, kOneLine},
    };
    for (const auto& [vector, result, stored, log, member_log] : cases) {
        SCOPED_TRACE(vector);
        Call call;
        call.info.type_queue = new vexon_type_map_t;
        call.info.value_queue = new vexon_value_map_t;
        EXPECT_EQ(AddVectorParams(parse(vector), 99, 42, &call.info), result);
        EXPECT_EQ(call.stored(), stored);
        call.expect_log(log);

        call.log.clear();
        vexon_type_map_t typed;
        vexon_value_map_t plain;
        EXPECT_EQ(AddStructVectorParams(parse(vector), 99, 42, &typed, &plain), result);
        EXPECT_EQ(show_entries(typed, plain), stored);
        call.expect_log(member_log);
    }
}

TEST(StructDecoder, KeepsTheMembersBeforeAFailure) {
    Call call;
    vexon_type_map_t typed;
    vexon_value_map_t plain;
    const Json::Value members = parse(R"([{"id":1,"type":"enum","value":1},
        {"id":2,"type":"uint8","value":256}, {"id":3,"type":"enum","value":1}])");
    EXPECT_EQ(AddStructParams(members, 99, &typed, &plain), -1);
    EXPECT_EQ(show_entries(typed, plain), "{1=12:1}");
    call.expect_log({"Out of range value received for uint8"});
}

TEST(Queues, KeepTheFirstValueOfAKeyAndAreIndependent) {
    const auto first = std::make_shared<ParamValues<int>>(1);
    const auto second = std::make_shared<ParamValues<int>>(2);
    QueueInsertion(nullptr, 1, first, VEXON_TYPE_INT32);
    value_QueueInsertion(nullptr, 1, first);

    Call call;
    ClearParamsFromQueues(call.info);
    QueueInsertion(&call.info, 1, first, VEXON_TYPE_INT32);
    EXPECT_EQ(call.info.value_queue, nullptr);
    QueueInsertion(&call.info, 1, second, VEXON_TYPE_ENUM);
    value_QueueInsertion(&call.info, 1, first);
    value_QueueInsertion(&call.info, 1, second);
    EXPECT_EQ(call.stored(), "{1=7:1}");
}

TEST(Queues, ReleaseTheValuesThatNobodyKeeps) {
    vexon_func_call_info_t info{};
    const Json::Value request = request_with(R"({"id":7,"type":"string","value":"kept"},
        {"type":"struct","members":[{"id":1,"type":"string","value":"kept"}]},
        {"id":8,"type":"string","value":"dropped"})");
    ASSERT_EQ(AddParamsToQueues(request, &info), 0);
    const Holder kept = info.value_queue->at(7);
    const Holder kept_struct = info.type_queue->at(1).second;
    const std::weak_ptr<ValuesInterface> dropped = info.value_queue->at(8);

    ClearParamsFromQueues(info);
    EXPECT_TRUE(dropped.expired());
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(held<std::string>(kept), "kept");
    EXPECT_EQ(held<std::string>(held<vexon_type_map_t>(kept_struct).at(1).second), "kept");
}

}  // namespace
