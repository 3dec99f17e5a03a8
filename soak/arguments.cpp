#include "arguments.h"

#include <fmt/format.h>

#include <array>
#include <limits>

#include "manager/json.h"

namespace soak {
namespace {

constexpr unsigned kMostArguments = 5;
constexpr unsigned kMostElements = 6;
constexpr unsigned kManyElements = 3000;
constexpr unsigned kLongVector = 256;  // one vector of so many is long
constexpr unsigned kMostDepth = 2;
constexpr int kStruct = 16;
constexpr int kVectorOfStructs = 30;

// A value in JSON and as the service renders it, or a list of those.
struct Texts {
    std::string json;
    std::string rendering;
};

template <class T>
Texts number(Random& random) {
    const T value = static_cast<T>(random());
    return {std::to_string(value), std::to_string(value)};
}

Texts real(Random& random) {
    const double value = static_cast<double>(static_cast<std::int32_t>(random())) / 8;
    return {fmt::format("{:.17g}", value), fmt::format("{:.17g}", value)};
}

Texts text(Random& random) {
    constexpr std::string_view kPieces[] = {"a", "Z", "0", " ", "\"", "\\", "\n", "/", "\xc3\xa9"};
    std::string value;
    for (auto length = random() % 24; length > 0; --length) {
        value += kPieces[random() % std::size(kPieces)];
    }
    return {manager::json_string(value), std::to_string(value.size()) + '"' + value};
}

Texts boolean(Random& random) {
    return random() % 2 == 0 ? Texts{"false", "0"} : Texts{"true", "1"};
}

struct Scalar {
    const char* name;
    Texts (*make)(Random& random);
};

// In the order of the library's numbers for them, from 1 on.
constexpr std::array<Scalar, 13> kScalars{{
    {"uint8", number<std::uint8_t>},
    {"uint16", number<std::uint16_t>},
    {"uint32", number<std::uint32_t>},
    {"uint64", number<std::uint64_t>},
    {"int8", number<std::int8_t>},
    {"int16", number<std::int16_t>},
    {"int32", number<std::int32_t>},
    {"int64", number<std::int64_t>},
    {"double", real},
    {"string", text},
    {"boolean", boolean},
    {"enum", number<std::int32_t>},
    {"bnry_blb", text},
}};

// Appends an argument or a member: its "id", its type and its own members in JSON.
void append(Texts& list, std::size_t id, int type, const std::string& members,
            const std::string& rendering) {
    if (!list.json.empty()) list.json += ',';
    list.json += fmt::format(R"({{"id":{},{}}})", id, members);
    list.rendering += fmt::format("{}:{}={};", id, type, rendering);
}

void append_scalar(Texts& list, std::size_t id, Random& random) {
    const auto index = random() % kScalars.size();
    const Texts value = kScalars.at(index).make(random);
    append(list, id, static_cast<int>(index) + 1,
           fmt::format(R"("type":"{}","value":{})", kScalars.at(index).name, value.json),
           value.rendering);
}

void append_vector(Texts& list, std::size_t id, Random& random) {
    const auto index = random() % kScalars.size();
    Texts elements;
    auto count = random() % kMostElements;
    if (random() % kLongVector == 0) count = kManyElements;
    for (; count > 0; --count) {
        const Texts element = kScalars.at(index).make(random);
        elements.json += (elements.json.empty() ? "" : ",") + element.json;
        elements.rendering += element.rendering + ',';
    }
    append(list, id, kStruct + 1 + static_cast<int>(index),
           fmt::format(R"("type":"vector","vec_type":"{}","value":[{}])", kScalars.at(index).name,
                       elements.json),
           '[' + elements.rendering + ']');
}

Texts make_members(Random& random, unsigned depth);

void append_struct(Texts& list, std::size_t id, Random& random, unsigned depth) {
    const Texts members = make_members(random, depth + 1);
    append(list, id, kStruct, fmt::format(R"("type":"struct","members":[{}])", members.json),
           '{' + members.rendering + '}');
}

void append_vector_of_structs(Texts& list, std::size_t id, Random& random) {
    Texts structs;
    for (auto count = random() % kMostElements; count > 0; --count) {
        const Texts members = make_members(random, 1);
        structs.json +=
            fmt::format(R"({}{{"members":[{}]}})", structs.json.empty() ? "" : ",", members.json);
        structs.rendering += '{' + members.rendering + "},";
    }
    append(list, id, kVectorOfStructs,
           fmt::format(R"("type":"vector","vec_type":"struct","value":[{}])", structs.json),
           '[' + structs.rendering + ']');
}

Texts make_members(Random& random, unsigned depth) {
    Texts list;
    const auto count = random() % kMostArguments;
    for (std::size_t id = 0; id < count; ++id) {
        const auto kind = random() % 4;
        if (kind == 0 && depth < kMostDepth) {
            append_struct(list, id, random, depth);
        } else if (kind == 1) {
            append_vector(list, id, random);
        } else {
            append_scalar(list, id, random);
        }
    }
    return list;
}

}  // namespace

// The id of each is its position: that is how the library numbers structs.
Arguments make_arguments(Random& random) {
    Texts list;
    const auto count = random() % (kMostArguments + 1);
    for (std::size_t id = 0; id < count; ++id) {
        switch (random() % 4) {
            case 0:
                append_struct(list, id, random, 0);
                break;
            case 1:
                append_vector(list, id, random);
                break;
            case 2:
                append_vector_of_structs(list, id, random);
                break;
            default:
                append_scalar(list, id, random);
        }
    }
    return {count, '[' + list.json + ']', '{' + list.rendering + '}'};
}

std::string make_undecodable_arguments(Random& random) {
    constexpr const char* kArrays[] = {
        R"([{"id":0,"type":"uint8","value":256}])",
        R"([{"id":0,"type":"int32","value":7},{"id":1,"type":"string","value":5}])",
        R"([{"id":0,"type":"vector","value":[1]}])",
        R"([{"id":0,"type":"vector","vec_type":"int16","value":[1,2,40000]}])",
        R"([{"id":0,"type":"struct"}])",
        R"([{"id":0,"type":"struct","members":[{"id":0,"type":"boolean","value":1}]}])",
        R"([{"id":0,"type":"vector","vec_type":"struct","value":[{"id":0}]}])",
        R"([7])",
    };
    return kArrays[random() % std::size(kArrays)];
}

}  // namespace soak
