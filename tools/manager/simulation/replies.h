#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "manager/simulation/packet.h"
#include "manager/simulation/requests.h"

namespace manager {

/// The reply of a client to a task.
struct Reply {
    std::int64_t transaction;
    /// The reply's "status", absent if it has no integer there.
    std::optional<std::int64_t> status;
    /// From the call of exec_task() until the packet was received.
    std::chrono::nanoseconds latency;
    Packet packet;
};

/// Matches replies to the tasks that were sent. Not thread-safe: its owner locks.
class Replies {
  public:
    using Time = std::chrono::steady_clock::time_point;

    void expect(std::int64_t transaction, Time sent) { pending_.emplace(transaction, sent); }

    /// Keeps the reply if it is the first to a task.
    void keep(const ReplyHead& head, const Packet& packet) {
        const auto task = pending_.find(head.transaction);
        if (task == pending_.end()) return;
        replies_.push_back({head.transaction, head.status, packet.time - task->second, packet});
        pending_.erase(task);
    }

    /// Removes and returns the reply to the transaction or, without one, the oldest reply.
    std::optional<Reply> take(std::optional<std::int64_t> transaction) {
        for (auto reply = replies_.begin(); reply != replies_.end(); ++reply) {
            if (transaction && reply->transaction != *transaction) continue;
            Reply taken = std::move(*reply);
            replies_.erase(reply);
            return taken;
        }
        return std::nullopt;
    }

  private:
    /// When each task that has no reply yet was sent.
    std::map<std::int64_t, Time> pending_;
    std::deque<Reply> replies_;
};

}  // namespace manager
