// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

namespace manager {

/// Why and where a text is no JSON.
struct JsonError {
    std::string what;
    std::size_t offset = 0;
};

/// Returns nothing, and fills in the error if there is one to fill in, if `text` is not JSON; never
/// throws.
std::optional<Json::Value> parse_json(const std::string& text, JsonError* error = nullptr);

/// The characters from which the value was parsed.
std::string json_source(const Json::Value& value, const std::string& text);

/// The part of the text around a place in it, and below that a caret that points there. Both lines
/// are indented and shown without control characters.
std::string excerpt(const std::string& text, std::size_t offset);

/// The member of an object, null if `value` is no object or has no such member.
const Json::Value& member(const Json::Value& value, const char* name);

/// Whether `text` is a JSON object or array that every program reads the same way: no NUL, no
/// member twice, nothing that only lenient readers take, nesting of at most 100.
bool is_strict_json(const std::string& text);

/// Whether it is a control character of ASCII.
inline bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// The text as a JSON string in UTF-8. What is no UTF-8 is replaced by U+FFFD.
std::string json_text(const std::string& text);

/// The value as JSON without blanks: a text with its quotes.
std::string json_string(const Json::Value& value);

}  // namespace manager
