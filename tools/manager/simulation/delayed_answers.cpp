#include "manager/simulation/delayed_answers.h"

#include <algorithm>
#include <utility>

namespace manager {

int DelayedAnswers::poll_timeout(Time now) const {
    if (answers_.empty()) return -1;
    // Rounded up: to poll for nothing until the time comes would take the processor.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(answers_.begin()->first - now);
    return static_cast<int>(std::max(left, std::chrono::milliseconds(0)).count());
}

std::vector<DelayedAnswers::Answer> DelayedAnswers::take_due(Time now) {
    const auto end = answers_.upper_bound(now);
    std::vector<Answer> due;
    for (auto it = answers_.begin(); it != end; ++it) due.push_back(std::move(it->second));
    answers_.erase(answers_.begin(), end);
    return due;
}

}  // namespace manager
