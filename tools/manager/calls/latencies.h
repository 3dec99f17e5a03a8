#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>

namespace manager {

using Milliseconds = std::chrono::duration<double, std::milli>;

/// Counts latencies in classes that are at most 1/64 of the latency wide, so that it needs little
/// memory (some 2,000 counters at most) however many there are. Not thread-safe.
class Latencies {
  public:
    void add(std::chrono::nanoseconds latency);

    std::uint64_t count() const { return count_; }

    /// The latency that `percent` of the latencies did not exceed, rounded up by less than 1.6 %,
    /// 0 if there are none. The maximum is exact.
    Milliseconds percentile(double percent) const;
    Milliseconds max() const { return max_; }

  private:
    /// How many there are of each class, by the longest latency in it.
    std::map<std::uint64_t, std::uint64_t> counts_;
    std::uint64_t count_ = 0;
    std::chrono::nanoseconds max_{0};
};

}  // namespace manager
