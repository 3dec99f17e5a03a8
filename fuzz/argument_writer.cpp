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

// The deepest structs are empty.
constexpr unsigned kLevels = 3;

Json::Value make_value(int id, unsigned levels, std::minstd_rand& random);

Json::Value make_values(std::size_t count, unsigned levels, std::minstd_rand& random) {
    Json::Value list(Json::arrayValue);
    for (int id = 0; list.size() < count; ++id) list.append(make_value(id, levels, random));
    return list;
}

Json::Value make_members(unsigned levels, std::minstd_rand& random) {
    return levels == 0 ? Json::Value(Json::arrayValue)
                       : make_values(random() % 4, levels - 1, random);
}

Json::Value make_scalars(std::string_view type, std::minstd_rand& random) {
    Json::Value list(Json::arrayValue);
    for (auto left = random() % 5; left > 0; --left) list.append(make_scalar(type, random));
    return list;
}

Json::Value make_structs(unsigned levels, std::minstd_rand& random) {
    Json::Value list(Json::arrayValue);
    for (auto left = random() % 3; left > 0; --left) {
        list.append(Json::objectValue)["members"] = make_members(levels, random);
    }
    return list;
}

// `levels` counts those that may follow. A member cannot be a vector of structs.
Json::Value make_value(int id, unsigned levels, std::minstd_rand& random) {
    const std::string type(kTypes[random() % std::size(kTypes)]);
    const bool is_argument = levels + 1 == kLevels;
    Json::Value value;
    value["id"] = id;
    switch (random() % (is_argument ? 4 : 3)) {
        case 0:
            value["type"] = type;
            value["value"] = make_scalar(type, random);
            break;
        case 1:
            value["type"] = "vector";
            value["vec_type"] = type;
            value["value"] = make_scalars(type, random);
            break;
        case 2:
            value["type"] = "struct";
            value["members"] = make_members(levels, random);
            break;
        default:
            value["type"] = "vector";
            value["vec_type"] = "struct";
            value["value"] = make_structs(levels, random);
    }
    return value;
}

}  // namespace

Json::Value make_arguments(std::size_t count, std::minstd_rand& random) {
    return make_values(count, kLevels - 1, random);
}

Json::Value make_argument(int id, std::minstd_rand& random) {
    return make_value(id, kLevels - 1, random);
}

std::string one_line(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}
