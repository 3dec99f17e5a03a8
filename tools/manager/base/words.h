// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "manager/base/error.h"

namespace manager {

/// Takes the items of a command line, from left to right. Each item may follow blanks; each
/// function throws BadCommand, naming the item as `what`, if it is not there or not complete.
class Words {
  public:
    /// The characters of `line` must outlive this object.
    explicit Words(std::string_view line) : line_(line), rest_(line) {}

    bool at_end();
    /// The first character of the next item, NUL at the end.
    char peek();
    /// The line as a whole, and where in it the next item begins.
    std::string_view line() const { return line_; }
    std::size_t position();
    /// Whether the next item begins with two dashes.
    bool at_option();

    /// The characters up to the next blank.
    std::string word(const char* what);
    /// The characters between the next character and its repetition, which has to end the item. A
    /// backslash before that character takes it as it is.
    std::string delimited(const char* what);
    /// A JSON array or object, which may hold blanks.
    std::string json(const char* what);
    /// The NAME of an item NAME=VALUE, taken together with the sign; nothing if it is another item.
    std::optional<std::string> name();
    /// Everything that is left, as it stands.
    std::string rest(const char* what);
    /// Throws BadCommand if anything is left.
    void end();

  private:
    void require(const char* what);
    std::string take(std::size_t size);

    std::string_view line_;
    std::string_view rest_;
};

/// The number that the whole of `text` is, as in 1a or 0x1a; nothing if it is none of 32 bits.
std::optional<std::uint32_t> hexadecimal(std::string_view text);

/// The same, and a decimal number of at most `max`; throw BadCommand, naming the number as `what`,
/// if it is none.
std::uint32_t parse_hexadecimal(std::string_view text, const char* what);
std::uint64_t parse_decimal(std::string_view text, const char* what, std::uint64_t max);

}  // namespace manager
