#include "manager/base/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "manager/base/utf8.h"

namespace manager {
namespace {

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::optional<Json::Value> parse(const Json::CharReaderBuilder& builder,
                                 const std::string& text) try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
    return value;
} catch (const Json::Exception&) {
    // Thrown for a text that nests too deeply.
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

std::optional<Json::Value> parse_json(const std::string& text) {
    static const Json::CharReaderBuilder kBuilder = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["failIfExtra"] = true;
        return builder;
    }();
    return parse(kBuilder, text);
}

bool is_strict_json(const std::string& text) {
    static const Json::CharReaderBuilder kBuilder = strict_builder();
    return is_utf8(text) && parse(kBuilder, text) && has_strict_tokens(text);
}

const Json::Value& member(const Json::Value& value, const char* name) {
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

std::string json_string(const std::string& text) {
    return compact(text);
}

std::string json_strings(const std::vector<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) array.append(text);
    return compact(array);
}

}  // namespace manager
