#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
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
    int poll_timeout(Time now) const {
        if (answers_.empty()) return -1;
        // Rounded up: to poll for nothing until the time comes would take the processor.
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(answers_.begin()->first - now).count();
        return static_cast<int>(std::max<std::int64_t>(left, 0));
    }

    /// Removes and returns those that are due by now, the one that was due first first.
    std::vector<Answer> take_due(Time now) {
        const auto end = answers_.upper_bound(now);
        std::vector<Answer> due;
        for (auto it = answers_.begin(); it != end; ++it) due.push_back(std::move(it->second));
        answers_.erase(answers_.begin(), end);
        return due;
    }

  private:
    std::multimap<Time, Answer> answers_;
};

}  // namespace manager
