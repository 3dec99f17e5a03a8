// SPDX-License-Identifier: Apache-2.0
#include "fuzz/argument_writer.h"

#include <json/writer.h>

#include <string_view>

namespace {

constexpr std::string_view kTypes[] = {"uint8",  "uint16",  "uint32",  "uint64", "int8",
                                       "int16",  "int32",   "int64",   "enum",   "double",
                                       "string", "boolean", "bnry_blb"};

Json::Value make_scalar(std::string_view type, std::minstd_rand& random) {
    const auto number = static_cast<int>(random() % 100);
    if (type == "double") return number + 0.5;
    if (type == "boolean") return number % 2 == 0;
    const bool is_text = type == "string" || type == "bnry_blb";
    if (is_text) return "a text that needs memory of its own, \"" + std::to_string(number) + "\"";
    return number;
}

Json::Value make_value(int id, unsigned levels, std::minstd_rand& random);

Json::Value make_values(std::size_t count, unsigned levels, std::minstd_rand& random) {
    Json::Value list(Json::arrayValue);
    for (int id = 0; list.size() < count; ++id) list.append(make_value(id, levels, random));
    return list;
}

// Members have fewer levels below them than an argument. A vector of structs cannot be a member.
constexpr unsigned kLevels = 2;

Json::Value make_value(int id, unsigned levels, std::minstd_rand& random) {
    const std::string type(kTypes[random() % std::size(kTypes)]);
    const auto form = random() % (levels == kLevels ? 4 : levels == 0 ? 2 : 3);
    const auto make_members = [&] { return make_values(random() % 4, levels - 1, random); };
    Json::Value value;
    value["id"] = id;
    value["type"] = form == 0 ? type : form == 2 ? "struct" : "vector";
    if (form == 0) {
        value["value"] = make_scalar(type, random);
    } else if (form == 2) {
        value["members"] = make_members();
    } else {
        value["vec_type"] = form == 1 ? type : "struct";
        value["value"] = Json::arrayValue;
        for (auto left = random() % 4; left > 0; --left) {
            Json::Value& element = value["value"].append(Json::objectValue);
            if (form == 1) element = make_scalar(type, random);
            if (form == 3) element["members"] = make_members();
        }
    }
    return value;
}

}  // namespace

Json::Value make_arguments(std::size_t count, std::minstd_rand& random) {
    return make_values(count, kLevels, random);
}

Json::Value make_argument(int id, std::minstd_rand& random) {
    return make_value(id, kLevels, random);
}

std::string one_line(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}
