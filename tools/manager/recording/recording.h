#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "manager/simulation/event.h"

namespace manager {

/// An event of a recorded conversation. Its time is that of the event before if the line has none;
/// the client has the number that it had then.
struct RecordedEvent : Event {
    /// The number of its line, from 1.
    std::size_t line;
    /// In UTC, as it is written.
    std::string written_time;
};

/// Reads a file that the recorder wrote, or what the program printed as JSON: lines of events that
/// are no part of the conversation are passed over. Left out are clients that exchanged no packet.
/// Calls `wrong` with a message for each line that is wrong, and goes on if it returns.
/// Throws ManagerError if the file cannot be read.
std::vector<RecordedEvent> read_events(const std::string& file,
                                       const std::function<void(const std::string&)>& wrong);

/// Reads a recording to replay. Left out is, too, that the Manager closed connections at last,
/// which it does whenever it ends. Throws ManagerError if the file cannot be read, a line is wrong
/// or there is no packet in it.
std::vector<RecordedEvent> read_recording(const std::string& file);

}  // namespace manager
