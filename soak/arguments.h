// Arguments for tasks, of all shapes. For any thread.

#pragma once

#include <fmt/format.h>
#include <json/value.h>

#include <algorithm>
#include <random>

#include "contract.h"

namespace soak {

using Random = std::mt19937_64;

template <class T>
std::string make_number(Random& random) {
    return std::to_string(static_cast<T>(random()));
}

inline std::string make_real(Random& random) {
    return std::to_string(static_cast<std::int32_t>(random()) / 8.0);
}

inline std::string make_boolean(Random& random) {
    return random() % 2 == 0 ? "false" : "true";
}

inline std::string make_text(Random& random) {
    constexpr const char* kPieces[] = {"a", "Z", " ", R"(\")", R"(\\)", R"(\n)", "\xc3\xa9"};
    std::string text;
    for (auto left = random() % 24; left > 0; --left) text += kPieces[random() % 7];
    return '"' + text + '"';
}

struct Scalar {
    const char* name;
    std::string (*make)(Random& random);
};

// In the order of the library's numbers for them, from 1 on.
constexpr Scalar kScalars[] = {{"uint8", make_number<std::uint8_t>},
                               {"uint16", make_number<std::uint16_t>},
                               {"uint32", make_number<std::uint32_t>},
                               {"uint64", make_number<std::uint64_t>},
                               {"int8", make_number<std::int8_t>},
                               {"int16", make_number<std::int16_t>},
                               {"int32", make_number<std::int32_t>},
                               {"int64", make_number<std::int64_t>},
                               {"double", make_real},
                               {"string", make_text},
                               {"boolean", make_boolean},
                               {"enum", make_number<std::int32_t>},
                               {"bnry_blb", make_text}};

template <class Make>
std::string make_list(std::size_t count, Make make) {
    std::string items;
    for (std::size_t i = 0; i < count; ++i) items += (i == 0 ? "" : ",") + make(i);
    return '[' + items + ']';
}

// Makes up arguments or members. The id of each is its position: that is how the library numbers
// structs.
inline std::string make_items(Random& random, int depth = 0) {
    const auto members = [&](std::size_t) {
        return R"("members":)" + make_items(random, depth + 1);
    };
    return make_list(random() % 6, [&](std::size_t id) {
        const Scalar& scalar = kScalars[random() % std::size(kScalars)];
        const auto kind = random() % 4;
        std::string item =
            fmt::format(R"("type":"{}","value":{})", scalar.name, scalar.make(random));
        if (kind == 0 && depth < 2) item = R"("type":"struct",)" + members(0);
        if (kind == 1) {
            const auto one = [&](std::size_t) { return scalar.make(random); };
            const std::size_t length = random() % 256 == 0 ? 3000 : random() % 6;
            item = fmt::format(R"("type":"vector","vec_type":"{}","value":{})", scalar.name,
                               make_list(length, one));
        } else if (kind == 2 && depth == 0) {
            const auto one = [&](std::size_t) { return '{' + members(0) + '}'; };
            item = R"("type":"vector","vec_type":"struct","value":)" + make_list(random() % 6, one);
        }
        return fmt::format(R"({{"id":{},{}}})", id, item);
    });
}

// Returns a value, argument or member as the service reads it.
inline std::string read_value(const Json::Value& value, const std::string& type) {
    if (type == "double") return std::to_string(value.asDouble());
    return value.isBool() ? std::to_string(value.asBool()) : value.asString();
}

// Returns arguments or members as the service reads them. Appends the numbers of their types.
inline std::string read_items(const Json::Value& items, std::string& types) {
    std::string text = "{";
    std::string ignored;
    for (const Json::Value& item : items) {
        const Json::Value& value = item["value"];
        const bool is_vector = item["type"] == "vector";
        const std::string type = item[is_vector ? "vec_type" : "type"].asString();
        const auto* const known = std::find_if(std::begin(kScalars), std::end(kScalars),
                                               [&](const Scalar& s) { return type == s.name; });
        const bool is_struct = known == std::end(kScalars);
        const auto number = is_struct ? (is_vector ? 14 : 16) : known - kScalars + 1;
        types += std::to_string(number + (is_vector ? 16 : 0)) + ' ';
        text += item["id"].asString() + '=';
        if (!is_vector) {
            text += is_struct ? read_items(item["members"], ignored) : read_value(value, type);
        }
        for (Json::ArrayIndex i = 0; is_vector && i < value.size(); ++i) {
            text += is_struct ? read_items(value[i]["members"], ignored)
                              : read_value(value[i], type) + ',';
        }
        text += ' ';
    }
    return text + '}';
}

// Returns what the service makes of the function and its arguments.
inline std::uint64_t digest_of(const std::string& function, const Json::Value& items) {
    std::string types;
    const std::string text = items.empty() ? "" : read_items(items, types);
    return hash_of(function + ' ' + std::to_string(items.size()) + text + types);
}

// Makes up an array of arguments that the library refuses while it decodes them.
inline std::string make_undecodable_arguments(Random& random) {
    constexpr const char* kArrays[] = {
        R"([{"id":0,"type":"int32","value":7},{"id":1,"type":"string","value":5}])",
        R"([{"id":0,"type":"vector","vec_type":"int16","value":[1,2,40000]}])",
        R"([{"id":0,"type":"struct","members":[{"id":0,"type":"boolean","value":1}]}])",
        R"([{"id":0,"type":"vector","vec_type":"struct","value":[{"id":0}]}])", "[7]"};
    return kArrays[random() % std::size(kArrays)];
}

}  // namespace soak
