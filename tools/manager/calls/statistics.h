#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "manager/calls/latencies.h"
#include "manager/simulation/event.h"

namespace manager {

/// Figures of the function calls in a conversation, by function, whichever command sent them.
/// Thread-safety: every member may be called from any thread.
///
/// The memory is bounded: latencies are counted in classes; functions beyond the first 1,000 share
/// a row; of the calls without a reply the newest 131,072 are known, and a reply to an older one
/// is not counted.
class CallStatistics {
  public:
    /// Counts the packet, which is `message`, if it is a call, or the first reply to one.
    void add(const Packet& packet, const Json::Value& message);

    /// Whether there were calls or replies since the figures were last taken by table() or json().
    bool has_news() const;

    /// Rows of aligned columns under a heading.
    std::string table();

    /// A JSON array with an object for each function.
    std::string json();

  private:
    /// The name and the opcode as the call has it.
    using Function = std::pair<std::string, std::string>;
    struct Figures {
        std::uint64_t calls = 0;
        /// Of these, the replies whose "status" is not 0.
        std::uint64_t failed = 0;
        Latencies latencies;
    };
    /// The client and the transaction.
    using CallId = std::pair<int, std::int64_t>;
    struct Pending {
        CallId id;
        Figures* row;
        std::chrono::steady_clock::time_point sent;
    };

    Figures& row_of(const Function& function);
    void add_call(const Function& function, const CallId& id, const Packet& packet);
    void add_reply(const CallId& id, bool failed, const Packet& packet);

    mutable std::mutex mutex_;
    bool has_news_ = false;
    std::map<Function, Figures> rows_;
    /// The calls without a reply, the oldest first, and where each stands there.
    std::list<Pending> pending_;
    std::map<CallId, std::list<Pending>::iterator> positions_;
};

}  // namespace manager
