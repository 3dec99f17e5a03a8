#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "manager/base/file_descriptor.h"

namespace manager {

/// How the Manager ends connections.
enum class Ending {
    /// Everything that clients sent is received first, so that they see an end of the connection.
    Orderly,
    /// As by a Manager that dies: what clients sent last may be left unread. A client of which a
    /// packet is, or that was not accepted yet, sees a reset; any other sees an end.
    Abrupt,
};

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
    /// How, if it is closing.
    Ending ending = Ending::Orderly;
    /// Whether it ended the connection itself.
    bool left = false;
};

}  // namespace manager
