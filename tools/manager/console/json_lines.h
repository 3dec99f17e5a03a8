// SPDX-License-Identifier: Apache-2.0
// The conversation for other programs: one JSON object on a line of its own for each event. Every
// line is valid JSON in UTF-8, whatever the packets hold.
#pragma once

#include <array>
#include <string>

#include "manager/simulation/event.h"

namespace manager {

/// How the lines name a kind of event: the "event", the member that tells kinds of one event apart,
/// and what that is.
struct KindWords {
    const char* event;
    const char* member;
    const char* value;
};
/// In the order of Kind.
constexpr std::array<KindWords, 5> kKindWords{{
    {"connected", "", ""},
    {"disconnected", "by", "client"},
    {"disconnected", "by", "manager"},
    {"packet", "direction", "from_client"},
    {"packet", "direction", "to_client"},
}};

/// A packet is a "message", as it stands, if is_strict_json(); line ends in it become blanks. Any
/// other packet is a "text", and has its bytes in "hex" too if they are no UTF-8.
std::string json_line(const Event& event);

/// An event that happens now. `members` is what else the object holds, as in "a":1,"b":2.
std::string json_line(const std::string& event, const std::string& members);

}  // namespace manager
