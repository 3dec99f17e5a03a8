#pragma once

#include <string>
#include <string_view>

namespace manager {

/// Whether it is a control character of ASCII.
inline bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// Whether `text` is well-formed UTF-8.
bool is_utf8(std::string_view text);

/// The text with each byte that belongs to no character of UTF-8 replaced by U+FFFD.
std::string replace_invalid_utf8(std::string_view text);

}  // namespace manager
