// SPDX-License-Identifier: Apache-2.0
#include "fuzz/json_mutator.h"

#include <json/json.h>

#include <algorithm>
#include <vector>

#include "fuzz/argument_writer.h"
#include "fuzz/oracle.h"
#include "manager/base/json.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace {

using Random = std::minstd_rand;

std::size_t below(std::size_t limit, Random& random) {
    return random() % limit;
}

template <class Items>
auto& any_of(Items& items, Random& random) {
    return items[below(std::size(items), random)];
}

Json::Value parsed(const char* text) {
    return parse_json(text).value_or(Json::Value());
}

const Json::Value& any_element(const Json::Value& array, Random& random) {
    return array[static_cast<Json::ArrayIndex>(below(array.size(), random))];
}

int any_id(Random& random) {
    return static_cast<int>(below(8, random));
}

// Values at and beyond the bounds of the types and of each kind of JSON. Never destroyed.
const Json::Value& kValues = *new Json::Value(parsed(R"([
    null, true, 0, 1, 5, 6, -1, 127, 128, -129, 255, 256, 26, 27, 28, 65535, 65536, 1313,
    2147483647, 2147483648, -2147483648, -2147483649, 4294967295, 4294967296,
    9223372036854775808, 18446744073709551615, 18446744073709551616, 0.5, -1e300, 7.0, "",
    "1a", "0x1b", "26", "28", "-1", "99999999999999999999", "a\u0000b", "%s%n", "throw",
    "null", "vector", "struct", "cb", "none", "float", [], {}, [1], ["1"], {"id":1}])"));

void remove_one(Json::Value* value, Random& random) {
    if (value->empty()) return;
    if (value->isArray()) {
        Json::Value removed;
        value->removeIndex(static_cast<Json::ArrayIndex>(below(value->size(), random)), &removed);
    } else if (value->isObject()) {
        const std::vector<std::string> names = value->getMemberNames();
        value->removeMember(any_of(names, random));
    }
}

void collect(Json::Value& value, std::vector<Json::Value*>* values) {
    values->push_back(&value);
    for (Json::Value& member : value) collect(member, values);
}

void change_one(Json::Value* message, Random& random) {
    std::vector<Json::Value*> values;
    collect(*message, &values);
    Json::Value& value = *any_of(values, random);
    switch (below(5, random)) {
        case 0:
            value = Json::Value(any_element(kValues, random));
            return;
        case 1:
            value = Json::Value(*any_of(values, random));
            return;
        case 2:
            remove_one(&value, random);
            return;
        case 3:
            if (value.isArray() && !value.empty()) {
                value.append(Json::Value(any_element(value, random)));
                return;
            }
            [[fallthrough]];
        default:
            if (value.isArray()) {
                value.append(make_argument(any_id(random), random));
            } else if (value.isObject() && value.isMember("type")) {
                value = make_argument(any_id(random), random);
            }
    }
}

void state_number_of_arguments(Json::Value* message) {
    if (!message->isObject() || !manager::member(*message, "func").isObject()) return;
    Json::Value& function = (*message)["func"];
    function["num_of_args"] = function["args"].size();
}

}  // namespace

std::string mutate_json(const std::string& text, Random& random) {
    auto message = parse_json(text);
    if (!message) return text;
    for (std::size_t i = below(3, random) + 1; i > 0; --i) change_one(&*message, random);
    if (below(8, random) != 0) state_number_of_arguments(&*message);
    return one_line(*message);
}

std::size_t mutate_input(std::uint8_t* data, std::size_t size, std::size_t max_size, unsigned seed,
                         Mutate mutate) {
    Random random(seed);
    if (below(2, random) == 0) return LLVMFuzzerMutate(data, size, max_size);
    const std::string result = mutate({reinterpret_cast<const char*>(data), size}, random);
    if (result.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    std::copy(result.begin(), result.end(), data);
    return result.size();
}
