#pragma once

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace manager {

/// The answers that go out later than at once. Not thread-safe: its owner locks.
class DelayedAnswers {
  public:
    using Time = std::chrono::steady_clock::time_point;

    struct Answer {
        int client;
        std::string text;
    };

    void add(Time due, Answer answer) { answers_.emplace(due, std::move(answer)); }

    void clear() { answers_.clear(); }

    /// For how long poll() may wait until the first is due; -1 if there is none.
    int poll_timeout(Time now) const;

    /// Removes and returns those that are due by now, the one that was due first first.
    std::vector<Answer> take_due(Time now);

  private:
    std::multimap<Time, Answer> answers_;
};

}  // namespace manager
