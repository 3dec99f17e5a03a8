#pragma once

#include <string>
#include <string_view>

namespace manager {

/// Whether `text` is well-formed UTF-8.
bool is_utf8(std::string_view text);

/// The text with each byte that belongs to no character of UTF-8 replaced by U+FFFD.
std::string replace_invalid_utf8(std::string_view text);

}  // namespace manager
