// SPDX-License-Identifier: Apache-2.0
// Measures the time of one step of handling and logs it. Belongs to one thread.

#pragma once

#include <android/log.h>

#include <chrono>
#include <cstdint>

#include "client/utility/logging.h"

// Measures one step of handling from its construction on and logs the time. `Duration` is the unit
// of the figure, `unit` its letter before the "s" (0 = none). Used by one thread.
template <class Duration>
class VexonTimer {
  public:
    static constexpr std::uint32_t kNotGiven = 4294967295U;

    explicit VexonTimer(char unit, std::uint32_t session_id = kNotGiven,
                        std::uint32_t transaction_id = kNotGiven)
        : unit_(unit),
          start_(std::chrono::steady_clock::now()),
          session_id_(session_id),
          transaction_id_(transaction_id) {}

    // Takes the time and logs it after `label`, with the ids that were given, at debug priority.
    // The log puts the line together, and only if it is not going to drop it.
    void stop(const char* label) {
        stop_ = std::chrono::steady_clock::now();
        const auto elapsed =
            static_cast<long long>(std::chrono::duration_cast<Duration>(stop_ - start_).count());
        const char unit[] = {unit_, '\0'};
        if (session_id_ == kNotGiven) {
            log_with_priority(ANDROID_LOG_DEBUG, "%s %lld%ss", label, elapsed, unit);
        } else if (transaction_id_ == kNotGiven) {
            log_with_priority(ANDROID_LOG_DEBUG, "%s sessionId %u %lld%ss", label, session_id_,
                              elapsed, unit);
        } else {
            log_with_priority(ANDROID_LOG_DEBUG, "%s sessionId %u transactionId %u %lld%ss", label,
                              session_id_, transaction_id_, elapsed, unit);
        }
    }

  private:
    char unit_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point stop_;
    std::uint32_t session_id_;
    std::uint32_t transaction_id_;
};

using MillisecondTimer = VexonTimer<std::chrono::milliseconds>;
