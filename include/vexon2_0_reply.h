// SPDX-License-Identifier: Apache-2.0
/// \file
/// Builds the member text of a reply, the `func` of _vexon_call_info_t, correctly escaped. Header
/// only; needs nothing but the standard library.
///
///     call->func = vexon::Reply()
///                      .add("celsius", 21.5)
///                      .add("rooms", names)  // std::vector<std::string>
///                      .add("limits", vexon::Object().add("from", 5).add("to", 30))
///                      .text();
///
/// How values are written:
///   - Texts (std::string, std::string_view, const char*, string literals) as strings. Valid UTF-8
///     goes through; double quotes, backslashes and control characters, NUL among them, are
///     escaped; each byte that is not part of valid UTF-8 becomes U+FFFD. A null const char*
///     becomes null.
///   - bool as true or false, std::nullptr_t as null.
///   - Integers exactly, up to 64 bits. unsigned char and signed char are numbers.
///   - double rounded to 15 digits at most, or to 16 or 17 if fewer do not read back as the same
///     value, and always with a point or an exponent, so that 20.0 is told from the integer 20 and
///     -0.0 keeps its sign. float as the double of the same value. NaN and the infinities, which
///     JSON does not have, as null. The locale has no influence.
///   - Object as an object, std::vector of all of these as an array.
/// All else does not compile. That includes char: it may be meant as a number or as a text, and
/// whether it has a sign depends on the processor. Write std::string(1, c) or convert it to int.
///
/// Thread-safety: as that of std::string. Objects are independent of each other.

#pragma once

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vexon {

class Object;

namespace internal {

inline bool is_in(char c, unsigned char min, unsigned char max) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= min && byte <= max;
}

// Returns how many bytes the character beyond ASCII takes that `text`, which is not empty, begins
// with, or 0 if it does not begin with one in valid UTF-8.
inline std::size_t multibyte_length(std::string_view text) {
    struct Form {
        unsigned char first_min, first_max;
        unsigned char second_min, second_max;  // all further ones are from 0x80 to 0xbf
        unsigned char length;
    };
    constexpr Form kForms[] = {
        {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
        {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
        {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
    };
    for (const Form& form : kForms) {
        if (!is_in(text[0], form.first_min, form.first_max)) continue;
        if (text.size() < form.length) return 0;
        if (!is_in(text[1], form.second_min, form.second_max)) return 0;
        for (std::size_t at = 2; at < form.length; ++at) {
            if (!is_in(text[at], 0x80, 0xbf)) return 0;
        }
        return form.length;
    }
    return 0;
}

// Returns how many bytes at the beginning of `text`, which is not empty, make up one character that
// a JSON string may hold as it is; 0 if there are none.
inline std::size_t verbatim_length(std::string_view text) {
    if (!is_in(text[0], 0x00, 0x7f)) return multibyte_length(text);
    return is_in(text[0], 0x00, 0x1f) || text[0] == '"' || text[0] == '\\' ? 0 : 1;
}

// Appends what stands for a byte that a JSON string may not hold as it is.
inline void append_escaped(std::string* json, char c) {
    constexpr char kHex[] = "0123456789abcdef";
    if (c == '"' || c == '\\') {
        *json += '\\';
        *json += c;
    } else if (is_in(c, 0x00, 0x1f)) {
        *json += "\\u00";
        *json += kHex[c >> 4];
        *json += kHex[c & 0xf];
    } else {
        *json += "\xef\xbf\xbd";  // U+FFFD: this is not UTF-8
    }
}

inline void append_string(std::string* json, std::string_view text) {
    std::size_t written = 0;
    *json += '"';
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = verbatim_length(text.substr(at));
        if (length > 0) {
            at += length;
            continue;
        }
        json->append(text, written, at - written);
        append_escaped(json, text[at]);
        written = ++at;
    }
    json->append(text, written);
    *json += '"';
}

template <class T>
void append_integer(std::string* json, T value) {
    char digits[20];  // enough for all of 64 bits and a sign
    const auto written = std::to_chars(std::begin(digits), std::end(digits), value);
    json->append(digits, written.ptr);
}

// Writes a finite number in as few digits as it takes to read it back, with the decimal point of
// the locale. std::to_chars() would do, but libc++ has it for double from its version 14 on only.
inline void format_double(char (&text)[40], double value) {
    // 15 digits come back unchanged from any normal double, so fewer need no trial: %g drops zeros
    // at the end.
    int digits = std::isnormal(value) ? 15 : 1;
    do {
        std::snprintf(text, sizeof text, "%.*g", digits, value);
    } while (++digits <= 17 && std::strtod(text, nullptr) != value);
}

inline void append_double(std::string* json, double value) {
    if (!std::isfinite(value)) {
        *json += "null";
        return;
    }
    char text[40];
    format_double(text, value);
    // All that is nothing else is the decimal point, which may have several bytes.
    constexpr std::string_view kAllElse = "0123456789+-e";
    const std::size_t start = json->size();
    for (const char c : std::string_view(text)) {
        if (kAllElse.find(c) != std::string_view::npos) {
            *json += c;
        } else if (json->back() != '.') {
            *json += '.';
        }
    }
    if (json->find_first_of(".e", start) == std::string::npos) *json += ".0";
}

template <class T>
inline constexpr bool kIsCharacter = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                                     std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

template <class T>
inline constexpr bool kIsVector = false;
template <class T, class Allocator>
inline constexpr bool kIsVector<std::vector<T, Allocator>> = true;

template <class T>
void append_value(std::string* json, const T& value);

template <class Vector>
void append_array(std::string* json, const Vector& values) {
    *json += '[';
    bool is_first = true;
    for (auto&& value : values) {  // a proxy if it is a vector of bool
        if (!is_first) *json += ',';
        is_first = false;
        append_value<typename Vector::value_type>(json, value);
    }
    *json += ']';
}

}  // namespace internal

/// Members of a JSON object, kept as their text.
class Object {
  public:
    /// Adds a member. Names are written in the order in which they come, and repeated if they are
    /// repeated. Neither `name` nor `value` may be part of this object; no reference to them is
    /// kept. Returns this object.
    template <class T>
    Object& add(std::string_view name, const T& value) & {
        if (!members_.empty()) members_ += ',';
        internal::append_string(&members_, name);
        members_ += ':';
        internal::append_value(&members_, value);
        return *this;
    }
    /// The same for a temporary.
    template <class T>
    Object&& add(std::string_view name, const T& value) && {
        return std::move(add(name, value));
    }

    /// Returns the members with commas between them, without braces; empty if there are none. It is
    /// never "-1", which would say that there is no reply.
    const std::string& text() const& { return members_; }
    /// The same, moved out of a temporary.
    std::string text() && { return std::move(members_); }

  private:
    std::string members_;
};

/// What a task answers.
using Reply = Object;

namespace internal {

template <class T>
void append_value(std::string* json, const T& value) {
    if constexpr (std::is_same_v<T, std::nullptr_t>) {
        *json += "null";
    } else if constexpr (std::is_same_v<T, bool>) {
        *json += value ? "true" : "false";
    } else if constexpr (std::is_integral_v<T> && !kIsCharacter<T>) {
        append_integer(json, value);
    } else if constexpr (std::is_same_v<T, double> || std::is_same_v<T, float>) {
        append_double(json, static_cast<double>(value));
    } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
        value == nullptr ? append_value(json, nullptr) : append_string(json, value);
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        append_string(json, value);
    } else if constexpr (kIsVector<T>) {
        append_array(json, value);
    } else if constexpr (std::is_same_v<T, Object>) {
        *json += '{';
        *json += value.text();
        *json += '}';
    } else {
        static_assert(kIsVector<T>,
                      "values of this type are not written: see the list in vexon2_0_reply.h");
    }
}

}  // namespace internal
}  // namespace vexon
