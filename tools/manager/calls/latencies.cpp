#include "manager/calls/latencies.h"

#include <algorithm>
#include <cmath>

namespace manager {
namespace {

constexpr std::uint64_t kClassesPerDoubling = 64;

std::uint64_t longest_of_class(std::uint64_t nanoseconds) {
    std::uint64_t width = 1;
    while (nanoseconds / width >= 2 * kClassesPerDoubling) width *= 2;
    return nanoseconds / width * width + width - 1;
}

}  // namespace

void Latencies::add(std::chrono::nanoseconds latency) {
    const auto nanoseconds = std::max<std::int64_t>(latency.count(), 0);
    ++counts_[longest_of_class(static_cast<std::uint64_t>(nanoseconds))];
    ++count_;
    max_ = std::max(max_, latency);
}

Milliseconds Latencies::percentile(double percent) const {
    const double rank = std::ceil(percent / 100 * static_cast<double>(count_));
    std::uint64_t seen = 0;
    for (const auto& [longest, count] : counts_) {
        seen += count;
        if (static_cast<double>(seen) < rank) continue;
        return std::min<std::chrono::nanoseconds>(
            std::chrono::nanoseconds(static_cast<std::int64_t>(longest)), max_);
    }
    return Milliseconds(0);
}

}  // namespace manager
