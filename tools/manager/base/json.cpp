// SPDX-License-Identifier: Apache-2.0
#include "manager/base/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace manager {
namespace {

/// Reads the first of jsoncpp's complaints, as in "* Line 1, Column 5\n  Syntax error\n".
JsonError read_error(const std::string& complaint, const std::string& text) {
    unsigned line = 1;
    unsigned column = 1;
    std::sscanf(complaint.c_str(), "* Line %u, Column %u", &line, &column);
    std::size_t begin = 0;
    for (; line > 1; --line) begin = text.find('\n', begin) + 1;
    const std::size_t what = std::min(complaint.find("\n  "), complaint.size() - 3) + 3;
    return {complaint.substr(what, complaint.find_first_of(".\n", what) - what),
            std::min(begin + column - 1, text.size())};
}

}  // namespace

std::optional<Json::Value> parse_json(const std::string& text, JsonError* error) try {
    static const Json::CharReaderBuilder kBuilder = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["failIfExtra"] = true;
        builder["allowTrailingCommas"] = false;
        return builder;
    }();
    const std::unique_ptr<Json::CharReader> reader(kBuilder.newCharReader());
    Json::Value value;
    std::string complaint;
    if (reader->parse(text.data(), text.data() + text.size(), &value, &complaint)) return value;
    if (error != nullptr) *error = read_error(complaint, text);
    return std::nullopt;
} catch (const Json::Exception&) {
    if (error != nullptr) *error = {"it nests too deeply"};
    return std::nullopt;
}

std::string json_source(const Json::Value& value, const std::string& text) {
    const auto begin = static_cast<std::size_t>(value.getOffsetStart());
    return text.substr(begin, static_cast<std::size_t>(value.getOffsetLimit()) - begin);
}

std::string excerpt(const std::string& text, std::size_t offset) {
    constexpr std::size_t kBefore = 60;
    constexpr std::size_t kAfter = 20;
    const std::size_t begin = offset > kBefore ? offset - kBefore : 0;
    std::string shown = text.substr(begin, offset - begin + kAfter);
    std::replace_if(shown.begin(), shown.end(), is_control, ' ');
    const auto is_first_byte = [](char c) { return (c & 0xc0) != 0x80; };
    const std::string before = shown.substr(0, offset - begin);
    const auto column = std::count_if(before.begin(), before.end(), is_first_byte);
    return "\n    " + shown + "\n    " + std::string(static_cast<std::size_t>(column), ' ') + '^';
}

const Json::Value& member(const Json::Value& value, const char* name) {
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

std::string json_string(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace manager
