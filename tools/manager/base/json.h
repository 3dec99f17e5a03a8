#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

namespace manager {

/// Returns nothing if `text` is not JSON; never throws.
std::optional<Json::Value> parse_json(const std::string& text);

/// The member of an object, null if `value` is no object or has no such member.
const Json::Value& member(const Json::Value& value, const char* name);

/// Whether `text` is a JSON object or array that every program reads the same way: no NUL, no
/// member twice, nothing that only lenient readers take, nesting of at most 100.
bool is_strict_json(const std::string& text);

/// The text as a JSON string, with its quotes, or the texts as a JSON array of strings.
std::string json_string(const std::string& text);
std::string json_strings(const std::vector<std::string>& texts);

}  // namespace manager
