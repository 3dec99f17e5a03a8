#include "manager/base/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "manager/base/utf8.h"

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

std::optional<Json::Value> parse(const Json::CharReaderBuilder& builder, const std::string& text,
                                 JsonError* error = nullptr) try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string complaint;
    if (reader->parse(text.data(), text.data() + text.size(), &value, &complaint)) return value;
    if (error != nullptr) *error = read_error(complaint, text);
    return std::nullopt;
} catch (const Json::Exception&) {
    if (error != nullptr) *error = {"it nests too deeply"};
    return std::nullopt;
}

Json::CharReaderBuilder strict_builder() {
    constexpr int kMaxNesting = 100;
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["skipBom"] = false;
    builder["stackLimit"] = kMaxNesting + 1;
    return builder;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

std::size_t count_digits(std::string_view text, std::size_t begin) {
    std::size_t end = begin;
    while (end < text.size() && is_digit(text[end])) ++end;
    return end - begin;
}

/// The size of the number that `text` begins with, 0 if it begins with none.
std::size_t number_size(std::string_view text) {
    std::size_t size = text[0] == '-' ? 1 : 0;
    const std::size_t digits = count_digits(text, size);
    if (digits == 0 || (digits > 1 && text[size] == '0')) return 0;
    size += digits;
    if (size < text.size() && text[size] == '.') {
        const std::size_t decimals = count_digits(text, size + 1);
        if (decimals == 0) return 0;
        size += 1 + decimals;
    }
    if (size < text.size() && (text[size] == 'e' || text[size] == 'E')) {
        const bool has_sign = size + 1 < text.size() && std::strchr("+-", text[size + 1]);
        const std::size_t exponent = count_digits(text, size + (has_sign ? 2 : 1));
        if (exponent == 0) return 0;
        size += (has_sign ? 2 : 1) + exponent;
    }
    return size;
}

/// The size of the string that `text` begins with, 0 if it holds what has to be escaped.
std::size_t string_size(std::string_view text) {
    std::size_t size = 1;
    for (; size < text.size() && text[size] != '"'; ++size) {
        if (static_cast<unsigned char>(text[size]) < 0x20) return 0;
        if (text[size] == '\\') ++size;
    }
    return size + 1;
}

/// jsoncpp takes control characters in strings, and numbers such as 007 and 1. even if it is
/// strict.
bool has_strict_tokens(std::string_view text) {
    std::size_t size = 1;
    for (; !text.empty(); text.remove_prefix(size)) {
        size = 1;
        if (text[0] == '"') size = string_size(text);
        if (text[0] == '-' || is_digit(text[0])) size = number_size(text);
        if (size == 0) return false;
    }
    return true;
}

}  // namespace

std::optional<Json::Value> parse_json(const std::string& text, JsonError* error) {
    static const Json::CharReaderBuilder kBuilder = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["failIfExtra"] = true;
        builder["allowTrailingCommas"] = false;
        return builder;
    }();
    return parse(kBuilder, text, error);
}

bool is_strict_json(const std::string& text) {
    static const Json::CharReaderBuilder kBuilder = strict_builder();
    return is_utf8(text) && parse(kBuilder, text) && has_strict_tokens(text);
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
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return is_control(c); }, ' ');
    const auto is_first_byte = [](char c) { return (c & 0xc0) != 0x80; };
    const std::string before = shown.substr(0, offset - begin);
    const auto column = std::count_if(before.begin(), before.end(), is_first_byte);
    return "\n    " + shown + "\n    " + std::string(static_cast<std::size_t>(column), ' ') + '^';
}

const Json::Value& member(const Json::Value& value, const char* name) {
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

std::string json_text(const std::string& text) {
    Json::StreamWriterBuilder builder;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, replace_invalid_utf8(text));
}

std::string json_string(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace manager
