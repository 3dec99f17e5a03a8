#pragma once

#include <chrono>
#include <string>

namespace manager {

enum class Direction { FromClient, ToClient };

/// One packet that crossed a client's connection.
struct Packet {
    /// When the packet was received, or handed to the kernel: for measuring, and for showing.
    std::chrono::steady_clock::time_point time;
    std::chrono::system_clock::time_point wall_time;
    /// The number of the client's connection, from 1.
    int client;
    Direction direction;
    std::string text;
};

/// A client connected, ended its connection, or had it ended by the Manager.
enum class Change { Connected, Left, Closed };

struct ConnectionChange {
    std::chrono::steady_clock::time_point time;
    std::chrono::system_clock::time_point wall_time;
    int client;
    Change change;
};

}  // namespace manager
