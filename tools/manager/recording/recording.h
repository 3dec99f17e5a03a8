#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace manager {

/// One event of a recorded conversation.
struct RecordedEvent {
    enum class Kind { Connected, Left, Closed, FromClient, ToClient };

    /// The number of its line, from 1.
    std::size_t line;
    Kind kind;
    /// The number the client had then.
    int client;
    /// Of a packet.
    std::string text;
};

/// Reads a file that the recorder wrote, or what the program printed as JSON: lines of events that
/// are no part of the conversation are passed over. Left out are clients that exchanged no packet,
/// and that the Manager closed connections at last, which it does whenever it ends.
/// Throws ManagerError if the file cannot be read, a line is wrong or there is no packet in it.
std::vector<RecordedEvent> read_recording(const std::string& file);

}  // namespace manager
