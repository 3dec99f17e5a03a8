#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <variant>

#include "manager/base/file_descriptor.h"
#include "manager/console/interruption.h"
#include "manager/simulation/packet.h"

namespace manager {

/// Keeps what happens in a conversation, in order, for one reader, while it is open. Thread-safety:
/// next() is for one thread at a time, the other members may be called from any thread.
class EventQueue {
  public:
    using Event = std::variant<Packet, ConnectionChange>;

    EventQueue();

    void open();
    /// Drops what was not read.
    void close();
    void add(const Event& event);

    /// Waits for the next event; returns nothing at the deadline or when the program is
    /// interrupted.
    std::optional<Event> next(const Interruption& interruption,
                              std::chrono::steady_clock::time_point deadline);

  private:
    std::optional<Event> take();

    /// Readable while there are events.
    FileDescriptor filled_;
    std::mutex mutex_;
    bool is_open_ = false;
    std::deque<Event> events_;
};

}  // namespace manager
