#include "client/json_access.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

// jsoncpp takes no value inside 1,000 brackets.
constexpr std::ptrdiff_t kMostLevels = 999;

Json::CharReader* make_reader() {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    builder["allowTrailingCommas"] = false;
    return builder.newCharReader();
}

bool is_opening(char c) {
    return c == '[' || c == '{';
}

bool is_closing(char c) {
    return c == ']' || c == '}';
}

// Returns the end of the string whose first quote is before `at`.
const char* skip_string(const char* at, const char* end) {
    while (at != end && *at != '"') at += (*at == '\\' && at + 1 != end) ? 2 : 1;
    return at == end ? end : at + 1;
}

// Returns the end of the comment whose slash is before `at`, or `at` if that begins none.
const char* skip_comment(const char* at, const char* end) {
    constexpr char kClosing[] = {'*', '/'};
    if (at == end) return end;
    if (*at == '/') return std::find_if(at, end, [](char c) { return c == '\n' || c == '\r'; });
    if (*at != '*') return at;
    const char* const closing = std::search(at + 1, end, std::begin(kClosing), std::end(kClosing));
    return closing == end ? end : closing + sizeof kClosing;
}

std::ptrdiff_t deepest_level(const char* at, const char* end) {
    std::ptrdiff_t level = 0;
    std::ptrdiff_t deepest = 0;
    while (at != end) {
        const char c = *at++;
        if (c == '"') at = skip_string(at, end);
        if (c == '/') at = skip_comment(at, end);
        if (is_opening(c)) deepest = std::max(deepest, ++level);
        if (is_closing(c)) --level;
    }
    return deepest;
}

bool nests_too_deeply(const char* begin, const char* end) {
    // Few brackets cannot nest deeply, wherever they are. That is nearly always so and quick.
    if (std::count_if(begin, end, is_opening) <= kMostLevels) return false;
    return deepest_level(begin, end) > kMostLevels;
}

}  // namespace

JsonReader::JsonReader() : reader_(make_reader()) {}

bool JsonReader::parse(const char* begin, const char* end, Json::Value* root, std::string* error) {
    if (!nests_too_deeply(begin, end)) return reader_->parse(begin, end, root, error);
    if (error != nullptr) *error = "nested too deeply";
    return false;
}

const Json::Value* find_member(const Json::Value& object, const char* key) {
    if (object.isNull()) return nullptr;
    if (!object.isObject()) throw MalformedMessage(std::string("no object to hold ") + key);
    return object.find(key, key + std::strlen(key));
}

const Json::Value& member(const Json::Value& object, const char* key) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? Json::Value::nullSingleton() : *found;
}

std::string as_text(const Json::Value& value) {
    if (value.isArray() || value.isObject()) throw MalformedMessage("text expected");
    return value.asString();
}

int as_int(const Json::Value& value) {
    if (!value.isConvertibleTo(Json::intValue)) throw MalformedMessage("int expected");
    return value.asInt();
}

unsigned int as_uint(const Json::Value& value) {
    if (!value.isConvertibleTo(Json::uintValue)) throw MalformedMessage("unsigned int expected");
    return value.asUInt();
}

std::string text_member(const Json::Value& object, const char* key, const char* missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_text(*found);
}

int int_member(const Json::Value& object, const char* key, int missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_int(*found);
}

unsigned int uint_member(const Json::Value& object, const char* key, unsigned int missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_uint(*found);
}
