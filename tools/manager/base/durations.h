#pragma once

#include <chrono>

namespace manager {

/// The longest time that anything here waits or is put off; keeps deadlines within the range of the
/// clock and of poll().
constexpr std::chrono::milliseconds kMaxDuration = std::chrono::hours(24);

}  // namespace manager
