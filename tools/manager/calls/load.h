#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "manager/calls/latencies.h"
#include "manager/simulation/Manager.h"

namespace manager {

struct LoadOptions {
    std::size_t count = 1;
    /// How many tasks wait for their replies at a time.
    std::size_t in_flight = 1;
    std::chrono::milliseconds timeout = std::chrono::seconds(5);
};

/// What became of the tasks of a load.
struct LoadResult {
    /// Of the replies.
    Latencies latencies;
    std::size_t sent = 0;
    /// Replies whose "status" was not 0.
    std::size_t failed = 0;
    std::chrono::nanoseconds duration{0};

    /// The figures in words, on one line.
    std::string summary() const;
};

/// Has the task executed options.count times, each reply making room for the next task, and waits
/// for the replies. Once a task is not answered within options.timeout no more are sent.
/// `progress` is called on this thread with the number of replies so far. Throws ManagerError if a
/// task cannot be sent.
LoadResult run_load(SimulatedManager& manager, const Task& task, const LoadOptions& options,
                    const std::function<void(std::size_t)>& progress);

}  // namespace manager
