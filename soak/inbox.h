// What comes in from the connections and from the service process, for one reader.
//
// Thread-safety: add() may be called from any thread, take() from one.

#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <variant>

#include "manager/packet.h"
#include "record.h"

namespace soak {

// A client has been disconnected.
struct Disconnection {};

using Event = std::variant<manager::Packet, Record, Disconnection>;

class Inbox {
  public:
    void add(Event event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
        added_.notify_one();
    }

    // Takes all events in the order in which they came, waiting up to `limit` for the first.
    std::deque<Event> take(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        added_.wait_for(lock, limit, [this] { return !events_.empty(); });
        return std::exchange(events_, {});
    }

  private:
    std::mutex mutex_;
    std::condition_variable added_;
    std::deque<Event> events_;
};

}  // namespace soak
