// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "manager/base/file_descriptor.h"

namespace manager {

/// Turns the signals that ask the program to end (SIGINT, SIGTERM, and SIGHUP unless it was ignored
/// when the program began, as nohup does) into a state that waits can watch. SIGPIPE counts if
/// interrupt() sends it, and is left to the error of the write otherwise. Make it before any other
/// thread, which then inherits that it leaves the signals alone.
class Interruption {
  public:
    /// `on_interrupt` is called on a thread of its own when a signal comes.
    explicit Interruption(std::function<void()> on_interrupt);
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Acts as if the signal, one of these, had been sent to the program.
    static void interrupt(int signal);

    /// The signal that came last, 0 while none did.
    int signal() const { return signal_; }

    /// Goes on as if a SIGINT had not come; another signal stays. Returns whether one has gone.
    bool forgive() const;

    /// Waits until `fd` can be read or is at its end; returns false if a signal comes first or the
    /// time is over, which is never without a `timeout`.
    bool wait_readable(int fd, std::optional<std::chrono::milliseconds> timeout = {}) const;

    /// Waits for that time; returns at once when a signal comes.
    void sleep(std::chrono::milliseconds duration) const { wait_readable(-1, duration); }

  private:
    /// Readable from the moment on at which a signal came.
    FileDescriptor came_;
    /// Held while a signal is taken note of.
    mutable std::mutex mutex_;
    mutable std::atomic<int> signal_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace manager
