// Arguments for tasks, of all types and shapes. For any thread.

#pragma once

#include <random>
#include <string>
#include <vector>

#include "contract.h"

namespace soak {

using Random = std::mt19937_64;

// A value in JSON, how the service reads it, and the library's number for its type. Each @ stands
// for two digits.
struct Shape {
    const char* json;
    const char* read;
    int type;
};

constexpr Shape kShapes[] = {
    {R"("uint8","value":1@)", "1@", 1},
    {R"("uint16","value":650@)", "650@", 2},
    {R"("uint32","value":42949671@)", "42949671@", 3},
    {R"("uint64","value":184467440737095515@)", "184467440737095515@", 4},
    {R"("int8","value":-@)", "-@", 5},
    {R"("int16","value":-326@)", "-326@", 6},
    {R"("int32","value":-21474835@)", "-21474835@", 7},
    {R"("int64","value":-92233720368547757@)", "-92233720368547757@", 8},
    {R"("double","value":-@.125)", "-@.125000", 9},
    {R"("string","value":"@\"\\\n@é")", "@\"\\\n@é", 10},
    {R"("boolean","value":true)", "1", 11},
    {R"("enum","value":-3@)", "-3@", 12},
    {R"("bnry_blb","value":"@")", "@", 13},
    {R"("vector","vec_type":"uint8","value":[1@,@])", "1@,@,", 17},
    {R"("vector","vec_type":"uint16","value":[650@,@])", "650@,@,", 18},
    {R"("vector","vec_type":"uint32","value":[42949671@])", "42949671@,", 19},
    {R"("vector","vec_type":"uint64","value":[184467440737095515@])", "184467440737095515@,", 20},
    {R"("vector","vec_type":"int8","value":[-@,@,0])", "-@,@,0,", 21},
    {R"("vector","vec_type":"int16","value":[-326@])", "-326@,", 22},
    {R"("vector","vec_type":"int32","value":[-21474835@])", "-21474835@,", 23},
    {R"("vector","vec_type":"int64","value":[])", "", 24},
    {R"("vector","vec_type":"double","value":[@.5,-0.25])", "@.500000,-0.250000,", 25},
    {R"("vector","vec_type":"string","value":["","@"])", ",@,", 26},
    {R"("vector","vec_type":"boolean","value":[true,false])", "1,0,", 27},
    {R"("vector","vec_type":"enum","value":[3@])", "3@,", 28},
    {R"("vector","vec_type":"bnry_blb","value":["@"])", "@,", 29},
    {R"("struct","members":[{"id":0,"type":"int32","value":@},{"id":1,"type":"struct","members":[]}])",
     "{0=@ 1={} }", 16},
    {R"("vector","vec_type":"struct","value":[{"members":[{"id":0,"type":"string","value":"@"}]},)"
     R"({"members":[]}])",
     "{0=@ }{}", 30},
};

struct Arguments {
    std::size_t count = 0;
    std::string json = "[";
    std::uint64_t digest = 0;  // what the service's digest_of() makes of them and the function
};

// The id of each is its position: that is how the library numbers structs. A few lists are long.
inline Arguments make_arguments(const std::string& function, Random& random) {
    Arguments made;
    made.count = random() % 512 == 0 ? 300 : random() % 6;
    std::string read = "{";
    std::string types;
    for (std::size_t id = 0; id < made.count; ++id) {
        const Shape& shape = kShapes[random() % std::size(kShapes)];
        const std::string digits = std::to_string(10 + random() % 90);
        const auto append = [&](std::string& text, const std::string& pattern) {
            for (const char c : pattern) text += c == '@' ? digits : std::string(1, c);
        };
        const std::string number = std::to_string(id);
        append(made.json,
               (id == 0 ? R"({"id":)" : R"(,{"id":)") + number + R"(,"type":)" + shape.json + '}');
        append(read, number + '=' + shape.read + ' ');
        types += std::to_string(shape.type) + ' ';
    }
    made.json += ']';
    const std::string head = function + ' ' + std::to_string(made.count);
    made.digest = hash_of(made.count == 0 ? head : head + read + '}' + types);
    return made;
}

// Makes up an array of arguments that the library refuses while it decodes them.
inline std::string make_undecodable_arguments(Random& random) {
    constexpr const char* kArrays[] = {
        R"([{"id":0,"type":"int32","value":7},{"id":1,"type":"string","value":5}])",
        R"([{"id":0,"type":"vector","vec_type":"int16","value":[1,2,40000]}])",
        R"([{"id":0,"type":"struct","members":[{"id":0,"type":"boolean","value":1}]}])", "[7]"};
    return kArrays[random() % std::size(kArrays)];
}

}  // namespace soak
