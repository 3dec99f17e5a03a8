// SPDX-License-Identifier: Apache-2.0
#include "manager/base/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace manager {
namespace {

constexpr std::string_view kBlanks = " \t\r";

template <typename Number>
std::optional<Number> parse_number(std::string_view text, int base) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

/// The size of the JSON value that `text` begins with, npos if it does not end in `text`.
std::size_t json_size(std::string_view text) {
    int depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (in_string && c == '\\') {
            ++i;
        } else if (c == '"') {
            in_string = !in_string;
        } else if (!in_string && (c == '[' || c == '{')) {
            ++depth;
        } else if (!in_string && (c == ']' || c == '}') && --depth == 0) {
            return i + 1;
        }
    }
    return std::string_view::npos;
}

}  // namespace

bool Words::at_end() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size()));
    return rest_.empty();
}

char Words::peek() {
    return at_end() ? '\0' : rest_.front();
}

std::size_t Words::position() {
    at_end();
    return line_.size() - rest_.size();
}

bool Words::at_option() {
    return !at_end() && rest_.substr(0, 2) == "--";
}

void Words::require(const char* what) {
    if (at_end()) throw BadCommand(fmt::format("{} is missing", what));
}

std::string Words::take(std::size_t size) {
    std::string taken(rest_.substr(0, size));
    rest_.remove_prefix(taken.size());
    return taken;
}

std::string Words::word(const char* what) {
    require(what);
    return take(rest_.find_first_of(kBlanks));
}

std::string Words::delimited(const char* what) {
    require(what);
    const char delimiter = rest_.front();
    std::string text;
    std::size_t i = 1;
    for (; i < rest_.size() && rest_[i] != delimiter; ++i) {
        if (rest_[i] == '\\' && i + 1 < rest_.size() && rest_[i + 1] == delimiter) ++i;
        text += rest_[i];
    }
    if (i >= rest_.size()) throw BadCommand(fmt::format("{} has no closing {}", what, delimiter));
    rest_.remove_prefix(i + 1);
    if (!rest_.empty() && kBlanks.find(rest_.front()) == std::string_view::npos) {
        throw BadCommand(fmt::format(
            "a blank must follow the closing {} of {}; a text that holds {} goes between other "
            "quotes",
            delimiter, what, delimiter));
    }
    return text;
}

std::string Words::json(const char* what) {
    require(what);
    const std::size_t size = json_size(rest_);
    if (size != std::string_view::npos) return take(size);
    throw BadCommand(
        fmt::format("{} must be a complete JSON array or object, not {}", what, rest_));
}

std::optional<std::string> Words::name() {
    if (at_end()) return std::nullopt;
    const std::size_t size = rest_.find_first_of("= \t\r\"'[{");
    if (size == 0 || size == std::string_view::npos || rest_[size] != '=') return std::nullopt;
    std::string taken = take(size);
    rest_.remove_prefix(1);
    return taken;
}

std::string Words::rest(const char* what) {
    require(what);
    return take(rest_.size());
}

void Words::end() {
    if (!at_end()) throw BadCommand(fmt::format("\"{}\" is too much", rest_));
}

std::optional<std::uint32_t> hexadecimal(std::string_view text) {
    const bool prefixed = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    return parse_number<std::uint32_t>(prefixed ? text.substr(2) : text, 16);
}

std::uint32_t parse_hexadecimal(std::string_view text, const char* what) {
    if (const auto number = hexadecimal(text)) return *number;
    throw BadCommand(
        fmt::format("{} must be a hexadecimal number up to ffffffff, not \"{}\"", what, text));
}

std::uint64_t parse_decimal(std::string_view text, const char* what, std::uint64_t max) {
    const auto number = parse_number<std::uint64_t>(text, 10);
    if (number && *number <= max) return *number;
    throw BadCommand(
        fmt::format("{} must be a decimal number up to {}, not \"{}\"", what, max, text));
}

}  // namespace manager
