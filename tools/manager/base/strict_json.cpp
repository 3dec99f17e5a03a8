// SPDX-License-Identifier: Apache-2.0
// What jsoncpp does not do: it takes control characters in strings, numbers such as 007 and 1. and
// bytes that are no UTF-8, even if it is strict.

#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "manager/base/json.h"

namespace manager {

using nlohmann::json;

bool is_strict_json(const std::string& text) {
    constexpr int kMaxNesting = 100;
    // Taken as nothing, and as the end.
    if (text.rfind("\xef\xbb\xbf", 0) == 0 || text.find('\0') != std::string::npos) return false;
    bool is_strict = true;
    std::vector<std::set<std::string>> members;  // of the objects that are open
    const auto check = [&](int depth, json::parse_event_t event, const json& parsed) {
        if (event == json::parse_event_t::object_start) members.emplace_back();
        if (event == json::parse_event_t::object_end) members.pop_back();
        const bool is_repeated =
            event == json::parse_event_t::key && !members.back().insert(parsed).second;
        if (is_repeated || depth > kMaxNesting) is_strict = false;
        return is_strict;
    };
    const json value = json::parse(text, check, /*allow_exceptions=*/false);
    return is_strict && value.is_structured();
}

std::string json_text(const std::string& text) {
    return json(text).dump(-1, ' ', /*ensure_ascii=*/false, json::error_handler_t::replace);
}

}  // namespace manager
