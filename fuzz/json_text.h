#pragma once

#include <optional>
#include <string>

#include "client/json_access.h"

// Returns the value of a JSON text as the library reads it, nothing if it is none.
inline std::optional<Json::Value> parse_json(const std::string& text) {
    Json::Value value;
    const char* const begin = text.data();
    if (!JsonReader().parse(begin, begin + text.size(), &value, nullptr)) return std::nullopt;
    return value;
}
