// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace manager {

/// A client connects, ends its connection or has it ended by the Manager; a packet comes or goes.
enum class Kind { Connected, Left, Closed, FromClient, ToClient };

/// What happened on the connection of a client.
struct Event {
    /// When, for measuring and for showing; of a packet, when it was received or handed to the
    /// kernel.
    std::chrono::steady_clock::time_point time;
    std::chrono::system_clock::time_point wall_time;
    /// The number of the connection, from 1.
    int client;
    Kind kind;
    /// Of a packet.
    std::string text = {};
};

/// An event that is a packet.
using Packet = Event;

inline bool is_packet(const Event& event) {
    return event.kind == Kind::FromClient || event.kind == Kind::ToClient;
}

}  // namespace manager
