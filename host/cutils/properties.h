// SPDX-License-Identifier: Apache-2.0
// Stand-in for the platform's <cutils/properties.h> on hosts, where libcutils has no properties.
// On a device the platform's own header is used.

#pragma once

#include <android-base/properties.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdlib>
#include <string>

// Returns what the environment says of a property, in a variable named like it with _ for each dot:
// the only way to set one for a process from outside on a host.
inline std::string property_in_environment(std::string key) {
    for (char& c : key) c = c == '.' ? '_' : c;
    const char* const value = std::getenv(key.c_str());
    return value == nullptr ? "" : value;
}

// Returns the property as an integer: its longest leading run of digits with an optional sign, in
// octal after "0", hexadecimal after "0x", else decimal. `default_value` if the property is not
// set, neither in the process nor in its environment, does not begin with a number or is out of
// range.
inline std::int32_t property_get_int32(const char* key, std::int32_t default_value) {
    const std::string text = android::base::GetProperty(key, property_in_environment(key));
    char* end = nullptr;
    errno = 0;
    const std::intmax_t value = std::strtoimax(text.c_str(), &end, 0);
    const bool converted = end != text.c_str() && errno != ERANGE;
    const bool fits = value >= INT32_MIN && value <= INT32_MAX;
    return converted && fits ? static_cast<std::int32_t>(value) : default_value;
}
