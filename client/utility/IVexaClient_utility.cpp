// SPDX-License-Identifier: Apache-2.0
#include "client/utility/IVexaClient_utility.h"

#include <stdexcept>

#include "client/IVexaClient.h"
#include "client/utility/logging.h"

std::map<std::string, vexon_data_type_t> known_data_types() {
    return {
        {"none", VEXON_TYPE_NONE},     {"uint8", VEXON_TYPE_UINT8},
        {"uint16", VEXON_TYPE_UINT16}, {"uint32", VEXON_TYPE_UINT32},
        {"uint64", VEXON_TYPE_UINT64}, {"int8", VEXON_TYPE_INT8},
        {"int16", VEXON_TYPE_INT16},   {"int32", VEXON_TYPE_INT32},
        {"int64", VEXON_TYPE_INT64},   {"double", VEXON_TYPE_DOUBLE},
        {"string", VEXON_TYPE_STRING}, {"boolean", VEXON_TYPE_BOOLEAN},
        {"enum", VEXON_TYPE_ENUM},     {"bnry_blb", VEXON_TYPE_BLOB},
        {"cb", VEXON_TYPE_CALLBACK},   {"vector", VEXON_TYPE_VECTOR},
        {"struct", VEXON_TYPE_STRUCT},
    };
}

std::map<std::string, vexon_data_type_t>& gDataTypes =
    *new std::map<std::string, vexon_data_type_t>(known_data_types());

namespace {

// Runs `convert` and stores what it returns. Returns 0, or -1 with a log line if it throws.
template <class Convert, class Number>
int store_converted(Convert convert, Number* out) {
    const char* failure = "Invalid input";
    try {
        *out = static_cast<Number>(convert());
        return 0;
    } catch (const std::invalid_argument&) {
        failure = "Invalid input, no conversion";
    } catch (const std::out_of_range&) {
        failure = "Invalid input, out of range input";
    } catch (const std::exception&) {
    }
    log_line(kAlways, "%s", failure);
    return -1;
}

}  // namespace

int stoi_validation(std::string text, int* out) {
    return store_converted([&] { return std::stoi(text); }, out);
}

int stoul_validation(std::string text, unsigned int* out) {
    return store_converted([&] { return std::stoull(text); }, out);
}

int stoull_validation(std::string text, std::uint64_t* out) {
    return store_converted([&] { return std::stoull(text); }, out);
}

void vexon_bool_to_string(bool value, std::string* out) {
    *out = value ? "true" : "false";
}

int vexon_string_to_bool(std::string text, bool* out) {
    if (text != "true" && text != "false") return -1;
    *out = text == "true";
    return 0;
}
