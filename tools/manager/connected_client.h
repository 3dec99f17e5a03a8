#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "manager/file_descriptor.h"

namespace manager {

/// What the Manager knows of a connected client.
struct ConnectedClient {
    int number;
    FileDescriptor connection;
    std::size_t max_packet_size;
    /// The packets that the connection had no room for yet.
    std::deque<std::string> unsent = {};
    /// The sessions that were started for it.
    std::set<std::int64_t> sessions = {};
    bool closing = false;
    /// Whether it ended the connection itself.
    bool left = false;
};

}  // namespace manager
