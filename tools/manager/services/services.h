// SPDX-License-Identifier: Apache-2.0
// What the conversation tells of the services: who they are, which sessions they take part in, how
// their functions are called, and what is wrong with what they send.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "manager/services/definition.h"
#include "manager/simulation/event.h"

namespace manager {

/// Of a service that has gone, or in the order in which they come.
enum class SessionState { Gone, Unknown, Starting, Refused, Started, Ready };

struct Service {
    Opcode opcode;
    int client;
    /// The "Vexon" of its definition.
    Json::Value definition;
    /// Whether the Manager has accepted its AUTH, and its REDY.
    bool registered = false;
    bool ready = false;
    std::map<std::int64_t, SessionState> sessions = {};

    /// Its name or, if it has none, its opcode.
    std::string name() const;
    /// Null if it declares no such function.
    const Json::Value& function(const std::string& name) const;
};

using Milliseconds = std::chrono::duration<double, std::milli>;

/// Counts latencies in classes that are at most 1/64 of the latency wide, so that it needs little
/// memory (some 2,000 counters at most) however many there are. Not thread-safe.
class Latencies {
  public:
    void add(std::chrono::nanoseconds latency) {
        const std::int64_t nanoseconds = std::max<std::int64_t>(latency.count(), 0);
        std::int64_t width = 1;
        while (nanoseconds / width >= 128) width *= 2;
        ++counts_[std::chrono::nanoseconds(nanoseconds / width * width + width - 1)];
        ++count_;
        max_ = std::max(max_, latency);
    }

    std::uint64_t count() const { return count_; }

    /// The latency that `percent` of the latencies did not exceed, rounded up by less than 1.6 %,
    /// 0 if there are none. The maximum is exact.
    Milliseconds percentile(double percent) const {
        const double rank = std::ceil(percent / 100 * static_cast<double>(count_));
        std::uint64_t seen = 0;
        for (const auto& [longest, count] : counts_) {
            seen += count;
            if (static_cast<double>(seen) >= rank) return std::min(longest, max_);
        }
        return Milliseconds(0);
    }
    Milliseconds max() const { return max_; }

  private:
    /// How many there are of each class, by the longest latency in it.
    std::map<std::chrono::nanoseconds, std::uint64_t> counts_;
    std::uint64_t count_ = 0;
    std::chrono::nanoseconds max_{0};
};

/// Figures of the calls of one function.
struct Figures {
    std::uint64_t calls = 0;
    /// Of these, the replies whose "status" is not 0.
    std::uint64_t failed = 0;
    /// Of all replies.
    Latencies latencies = {};
};

/// Follows the conversation. Thread-safety: every member may be called from any thread.
///
/// Of the calls of a client without a reply the newest 131,072 are known.
class Services {
  public:
    /// Takes note of an event, a packet being `message` if it is JSON, and returns what is wrong
    /// with a packet of a client.
    std::vector<std::string> add(const Event& event, const std::optional<Json::Value>& message);

    /// The services that are registered, the one that registered last if there are several.
    std::map<Opcode, Service> list() const;
    /// The one whose name or opcode this is.
    std::optional<Service> find(const std::string& name) const;

    SessionState session(const Service& service, std::int64_t session);
    /// A number from `first` on that no session has had.
    std::int64_t unused_session(std::int64_t first) const;

    /// A function's name and opcode, as its calls have them.
    using Function = std::pair<std::string, std::string>;
    std::map<Function, Figures> take_figures();
    /// Whether there were calls or replies since they were last taken.
    bool has_new_figures() const;

  private:
    /// What a client is asked and has not answered.
    struct Question {
        std::chrono::steady_clock::time_point sent;
        /// Of a task.
        Function function;
        /// The services of a session that are meant.
        std::set<Opcode> opcodes;
    };
    /// The "req_type", and the session or, of a task, the transaction.
    using Key = std::pair<std::string, std::int64_t>;
    struct Client {
        /// As INIT gave it.
        std::optional<std::int64_t> id;
        std::multimap<Key, Question> asked;
    };

    /// Each takes note of messages of some types, in one direction.
    using Handler = void(const Packet& packet, const Json::Value& message);
    Handler forget, ask_auth, ask_ready, acknowledge, ask, ready_session, answer, query;

    void check_service_id(int client, const Json::Value& message);
    void check_reply(const Packet& packet, const Question& task, const Json::Value& message);
    static Key key_of(const Json::Value& message);
    void check_text(const Packet& packet);
    Service* find(int client, Opcode opcode);
    Figures& figures_of(const Function& function);
    void complain(const std::string& what) { faults_.push_back(what); }

    mutable std::mutex mutex_;
    std::vector<Service> services_;
    std::map<int, Client> clients_;
    std::int64_t last_session_ = 0;
    std::map<Function, Figures> figures_;
    bool has_new_figures_ = false;
    /// Of the packet that is being looked at.
    std::vector<std::string> faults_;
};

}  // namespace manager
