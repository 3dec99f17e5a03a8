#pragma once

#include <android/log.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "client/logging.h"

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
    void stop(const std::string& label) {
        stop_ = std::chrono::steady_clock::now();
        std::string line = label;
        if (session_id_ != kNotGiven) {
            line += " sessionId " + std::to_string(session_id_);
            if (transaction_id_ != kNotGiven) {
                line += " transactionId " + std::to_string(transaction_id_);
            }
        }
        line += ' ' + std::to_string(std::chrono::duration_cast<Duration>(stop_ - start_).count());
        if (unit_ != 0) line += unit_;
        line += 's';
        log_with_priority(ANDROID_LOG_DEBUG, "%s", line.c_str());
    }

  private:
    char unit_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point stop_;
    std::uint32_t session_id_;
    std::uint32_t transaction_id_;
};

using MillisecondTimer = VexonTimer<std::chrono::milliseconds>;
