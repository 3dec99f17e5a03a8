#include "message.h"

#include <algorithm>
#include <cmath>

namespace bench {
namespace {

bool is_text(const std::string& type) {
    return type == "string" || type == "bnry_blb";
}

std::string joined(const std::vector<Argument>& parts, std::string (*text)(const Argument&)) {
    std::string all;
    for (const Argument& part : parts) all += (all.empty() ? "" : ",") + text(part);
    return all;
}

std::string member_list(const std::vector<Argument>& members);

std::string value_text(const Argument& argument) {
    if (argument.type == "struct") return "{\"members\":" + member_list(argument.parts) + "}";
    if (is_text(argument.type)) return '"' + argument.text + '"';
    if (argument.type == "boolean") return argument.number == 0 ? "false" : "true";
    const std::string digits = std::to_string(std::llround(std::floor(argument.number)));
    return argument.type == "double" ? digits + ".5" : digits;
}

std::string fields_of(const Argument& argument) {
    if (argument.type == "struct") return ",\"members\":" + member_list(argument.parts);
    if (argument.type != "vector") return ",\"value\":" + value_text(argument);
    return ",\"vec_type\":\"" + argument.parts.front().type + "\",\"value\":[" +
           joined(argument.parts, value_text) + "]";
}

std::string member_list(const std::vector<Argument>& members) {
    std::string all;
    for (std::size_t id = 0; id < members.size(); ++id) {
        all += (id == 0 ? "{\"id\":" : ",{\"id\":") + std::to_string(id) + ",\"type\":\"" +
               members[id].type + '"' + fields_of(members[id]) + '}';
    }
    return '[' + all + ']';
}

Argument nested_struct(std::size_t depth) {
    Argument level{"struct"};
    for (const char* type : {"int32", "string", "double"}) {
        level.parts.push_back(make_argument(type, level.parts.size()));
    }
    if (depth > 1) level.parts.push_back(nested_struct(depth - 1));
    return level;
}

std::string counted(std::size_t count, const std::string& what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

}  // namespace

Argument make_argument(const std::string& type, std::size_t position) {
    if (type == "struct") return {type, 0, {}, {make_argument("int32", position)}};
    if (is_text(type)) return {type, 0, "text " + std::to_string(10'000 + position)};
    if (type == "boolean") return {type, static_cast<double>(position % 2)};
    if (type == "double") return {type, static_cast<double>(position) + 0.5};
    const bool is_byte = type == "uint8" || type == "int8";
    return {type, static_cast<double>(is_byte ? position % 100 : 10'000 + position)};
}

Message scalars(const std::string& type, std::size_t count) {
    Message message{counted(count, "argument"), "many", {}};
    for (std::size_t i = 0; i < count; ++i) message.arguments.push_back(make_argument(type, i));
    return message;
}

Message vector_of(const std::string& type, std::size_t count) {
    Argument vector{"vector"};
    for (std::size_t i = 0; i < count; ++i) vector.parts.push_back(make_argument(type, i));
    return {"vector of " + std::to_string(count), "vector", {vector}};
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
    std::vector<Message> messages = {small_request()};
    for (const std::size_t count : {1U, 10U, 100U, 1'000U})
        messages.push_back(scalars("int32", count));
    for (const std::size_t count : {1U, 100U, 10'000U})
        messages.push_back(vector_of("int32", count));
    for (const std::size_t depth : {1U, 4U, 8U}) messages.push_back(nested_structs(depth));
    return messages;
}

std::string exec_task_text(const Message& message, std::uint32_t transaction) {
    return "{\"req_type\":\"exec_task\",\"opcode\":\"0x1a\",\"subsys_id\":" +
           std::to_string(kSubsystem) + ",\"session_id\":" + std::to_string(kSession) +
           ",\"transac_id\":" + std::to_string(transaction) + ",\"func\":{\"name\":\"" +
           message.function + "\",\"num_of_args\":" + std::to_string(message.arguments.size()) +
           ",\"args\":" + member_list(message.arguments) + "}}";
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
