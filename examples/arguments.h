// Reading the arguments of a task by their types.

#pragma once

#include <vexon2_0.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The "return" of a reply; its "status" is 0 for kDone and -1 for the others.
enum ReturnValue { kDone = 0, kNoFunction = -1, kBadArgument = -2, kRefused = -3, kBroken = -4 };

struct CallError : std::runtime_error {
    // `text` becomes part of a reply as it is: no double quote, no backslash.
    CallError(ReturnValue value, const std::string& text)
        : std::runtime_error(text), return_value(value) {}

    ReturnValue return_value;
};

template <class T>
inline constexpr vexon_data_type_t kTypeOf = VEXON_TYPE_NONE;
template <>
inline constexpr vexon_data_type_t kTypeOf<unsigned char> = VEXON_TYPE_UINT8;
template <>
inline constexpr vexon_data_type_t kTypeOf<double> = VEXON_TYPE_DOUBLE;
template <>
inline constexpr vexon_data_type_t kTypeOf<bool> = VEXON_TYPE_BOOLEAN;
template <>
inline constexpr vexon_data_type_t kTypeOf<std::vector<double>> = VEXON_TYPE_VECTOR_DOUBLE;
template <>
inline constexpr vexon_data_type_t kTypeOf<vexon_type_map_t> = VEXON_TYPE_STRUCT;

// Returns the argument, or the member of a struct argument, with this key.
template <class T>
const T& get(const vexon_type_map_t& arguments, int key) {
    static_assert(kTypeOf<T> != VEXON_TYPE_NONE, "kTypeOf must name the type");
    const auto found = arguments.find(key);
    if (found == arguments.end()) {
        throw CallError(kBadArgument, "argument " + std::to_string(key) + " is missing");
    }
    const auto& [type, value] = found->second;
    if (type != kTypeOf<T>) {
        throw CallError(kBadArgument, "argument " + std::to_string(key) + " is of a wrong type");
    }
    return std::static_pointer_cast<ParamValues<T>>(value)->value;
}
