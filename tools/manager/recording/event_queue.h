#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "manager/simulation/packet.h"

namespace manager {

/// Keeps what happens in a conversation, in order, while it is open. Thread-safety: every member
/// may be called from any thread.
class EventQueue {
  public:
    using Event = std::variant<Packet, ConnectionChange>;

    /// Drops what was not taken.
    void set_open(bool open) {
        const std::lock_guard lock(mutex_);
        is_open_ = open;
        events_.clear();
    }

    void add(const Event& event) {
        const std::lock_guard lock(mutex_);
        if (is_open_) events_.push_back(event);
    }

    /// Removes and returns the oldest.
    std::optional<Event> take() {
        const std::lock_guard lock(mutex_);
        if (events_.empty()) return std::nullopt;
        Event event = std::move(events_.front());
        events_.pop_front();
        return event;
    }

  private:
    std::mutex mutex_;
    bool is_open_ = false;
    std::deque<Event> events_;
};

}  // namespace manager
