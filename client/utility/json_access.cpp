// SPDX-License-Identifier: Apache-2.0
#include "client/utility/json_access.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

// jsoncpp takes no value inside 1,000 brackets. (It takes an empty 1,000th, which is refused here.)
constexpr std::ptrdiff_t kMostLevels = 999;

Json::CharReader* make_reader() {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    builder["allowTrailingCommas"] = false;
    return builder.newCharReader();
}

enum class Mark : unsigned char { kNone, kOpening, kClosing, kQuote, kSlash };

constexpr std::array<Mark, 256> mark_table() {
    std::array<Mark, 256> table{};
    table['['] = table['{'] = Mark::kOpening;
    table[']'] = table['}'] = Mark::kClosing;
    table['"'] = Mark::kQuote;
    table['/'] = Mark::kSlash;
    return table;
}

constexpr std::array<Mark, 256> kMarks = mark_table();

const char* find(char c, const char* at, const char* end) {
    const void* const found = std::memchr(at, c, static_cast<std::size_t>(end - at));
    return found == nullptr ? end : static_cast<const char*>(found);
}

// Returns the end of the string whose first quote is before `at`. A quote behind an odd number of
// backslashes is part of it.
const char* skip_string(const char* at, const char* end) {
    while (at != end) {
        const char* const quote = find('"', at, end);
        if (quote == end) return end;
        const char* escape = quote;
        while (escape != at && escape[-1] == '\\') --escape;
        if ((quote - escape) % 2 == 0) return quote + 1;
        at = quote + 1;
    }
    return end;
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

bool nests_too_deeply(const char* at, const char* end) {
    if (end - at <= kMostLevels) return false;  // as are most messages
    std::ptrdiff_t level = 0;
    while (at != end) {
        const Mark mark = kMarks[static_cast<unsigned char>(*at++)];
        if (mark == Mark::kNone) continue;
        if (mark == Mark::kQuote) at = skip_string(at, end);
        if (mark == Mark::kSlash) at = skip_comment(at, end);
        if (mark == Mark::kClosing && --level <= 0) return false;  // nothing behind is read
        if (mark == Mark::kOpening && ++level > kMostLevels) return true;
    }
    return false;
}

}  // namespace

JsonReader::JsonReader() : reader_(make_reader()) {}

bool JsonReader::parse(const char* begin, const char* end, Json::Value* root, std::string* error) {
    if (!nests_too_deeply(begin, end)) return reader_->parse(begin, end, root, error);
    if (error != nullptr) *error = "nested too deeply";
    return false;
}

const Json::Value* find_member(const Json::Value& object, std::string_view key) {
    const Json::ValueType type = object.type();
    if (type == Json::objectValue) return object.find(key.data(), key.data() + key.size());
    if (type == Json::nullValue) return nullptr;
    throw MalformedMessage("no object to hold " + std::string(key));
}

const Json::Value& member(const Json::Value& object, std::string_view key) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? Json::Value::nullSingleton() : *found;
}

std::string as_text(const Json::Value& value) {
    const Json::ValueType type = value.type();
    if (type == Json::arrayValue || type == Json::objectValue) {
        throw MalformedMessage("text expected");
    }
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

std::string text_member(const Json::Value& object, std::string_view key, const char* missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_text(*found);
}

int int_member(const Json::Value& object, std::string_view key, int missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_int(*found);
}

unsigned int uint_member(const Json::Value& object, std::string_view key, unsigned int missing) {
    const Json::Value* const found = find_member(object, key);
    return found == nullptr ? missing : as_uint(*found);
}
