#pragma once

#include <atomic>

#include "manager/calls/statistics.h"
#include "manager/console/console.h"
#include "manager/recording/event_queue.h"
#include "manager/recording/recorder.h"
#include "manager/services/services.h"
#include "manager/simulation/Manager.h"

namespace manager {

/// What follows the conversation besides the console. Thread-safety: as its members.
struct Traffic {
    Recorder recorder;
    CallStatistics calls;
    EventQueue events;
    Services services;
    /// How many faults of services there were.
    std::atomic<std::size_t> faults{0};

    /// Has the conversation of the Manager shown on the console and followed by the members. All
    /// must outlive the Manager.
    void follow(SimulatedManager& manager, Console& console);
};

}  // namespace manager
