// SPDX-License-Identifier: Apache-2.0
#include "message.h"

#include <fmt/ranges.h>

#include <cmath>

namespace bench {
namespace {

bool is_text(const std::string& type) {
    return type == "string" || type == "bnry_blb";
}

std::string list_of(const std::vector<Argument>& members);

std::string value_text(const Argument& argument) {
    if (argument.type == "struct") return "{\"members\":" + list_of(argument.parts) + "}";
    if (is_text(argument.type)) return '"' + argument.text + '"';
    if (argument.type == "boolean") return argument.number == 0 ? "false" : "true";
    return fmt::format("{:.{}f}", argument.number, argument.type == "double" ? 1 : 0);
}

std::string fields_of(const Argument& argument) {
    if (argument.type == "struct") return "\"members\":" + list_of(argument.parts);
    if (argument.type != "vector") return "\"value\":" + value_text(argument);
    std::vector<std::string> elements;
    for (const Argument& element : argument.parts) elements.push_back(value_text(element));
    return fmt::format(R"("vec_type":"{}","value":[{}])", argument.parts.front().type,
                       fmt::join(elements, ","));
}

std::string list_of(const std::vector<Argument>& members) {
    std::vector<std::string> texts;
    for (const Argument& member : members) {
        texts.push_back(fmt::format(R"({{"id":{},"type":"{}",{}}})", texts.size(), member.type,
                                    fields_of(member)));
    }
    return fmt::format("[{}]", fmt::join(texts, ","));
}

Argument make_argument(const std::string& type, std::size_t position) {
    const auto number = static_cast<double>(position);
    if (type == "struct") return {type, 0, {}, {make_argument("int32", position)}};
    if (is_text(type)) return {type, 0, fmt::format("text {}", 10'000 + position)};
    if (type == "boolean") return {type, static_cast<double>(position % 2)};
    if (type == "double") return {type, number + 0.5};
    const bool is_byte = type == "uint8" || type == "int8";
    return {type, is_byte ? static_cast<double>(position % 100) : 10'000 + number};
}

std::vector<Argument> make_arguments(const std::string& type, std::size_t count) {
    std::vector<Argument> arguments;
    for (std::size_t i = 0; i < count; ++i) arguments.push_back(make_argument(type, i));
    return arguments;
}

Argument nested_struct(std::size_t depth) {
    Argument level{"struct"};
    for (const char* type : {"int32", "string", "double"}) {
        level.parts.push_back(make_argument(type, level.parts.size()));
    }
    if (depth > 1) level.parts.push_back(nested_struct(depth - 1));
    return level;
}

std::string counted(std::size_t count, const char* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

}  // namespace

Message scalars(const std::string& type, std::size_t count) {
    return {counted(count, "argument"), "many", make_arguments(type, count)};
}

Message vector_of(const std::string& type, std::size_t count) {
    return {fmt::format("vector of {}", count),
            "vector",
            {{"vector", 0, {}, make_arguments(type, count)}}};
}

Message nested_structs(std::size_t depth) {
    return {counted(depth, "struct") + " deep", "nested", {nested_struct(depth)}};
}

Message small_request() {
    return {"3 arguments, 273 bytes",
            "set_target_temperature",
            {{"int32", 4711},
             {"string", 0, "the living room on the ground floor, north"},
             {"double", 21.5}}};
}

std::vector<Message> whole_way_messages() {
    std::vector<Message> all = {small_request()};
    for (const std::size_t count : {1U, 10U, 100U, 1'000U}) all.push_back(scalars("int32", count));
    for (const std::size_t count : {1U, 100U, 10'000U}) all.push_back(vector_of("int32", count));
    for (const std::size_t depth : {1U, 4U, 8U}) all.push_back(nested_structs(depth));
    return all;
}

std::string exec_task_text(const Message& message, std::uint32_t transaction) {
    return fmt::format(R"({{"req_type":"exec_task","opcode":"0x1a","subsys_id":{},"session_id":{},)"
                       R"("transac_id":{},"func":{{"name":"{}","num_of_args":{},"args":{}}}}})",
                       kSubsystem, kSession, transaction, message.function,
                       message.arguments.size(), list_of(message.arguments));
}

std::int64_t checksum(const std::vector<Argument>& arguments) {
    std::int64_t sum = 0;
    for (const Argument& argument : arguments) {
        sum += std::llround(std::floor(argument.number)) +
               static_cast<std::int64_t>(argument.text.size()) + checksum(argument.parts);
    }
    return sum;
}

}  // namespace bench
