// The conversation for other programs: one JSON object on a line of its own for each event. Every
// line is valid JSON in UTF-8, whatever the packets hold.
#pragma once

#include <string>

#include "manager/simulation/packet.h"

namespace manager {

/// A packet is a "message", as it stands, if is_strict_json(); line ends in it become blanks. Any
/// other packet is a "text", and has its bytes in "hex" too if they are no UTF-8.
std::string json_line(const Packet& packet);
std::string json_line(const ConnectionChange& change);

/// An event that happens now. `members` is what else the object holds, as in "a":1,"b":2.
std::string json_line(const std::string& event, const std::string& members);

}  // namespace manager
