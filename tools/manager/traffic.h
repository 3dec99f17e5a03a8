#pragma once

#include "manager/Manager.h"
#include "manager/call_statistics.h"
#include "manager/console.h"
#include "manager/event_queue.h"
#include "manager/recorder.h"

namespace manager {

/// What follows the conversation besides the console. Thread-safety: as its members.
struct Traffic {
    Recorder recorder;
    CallStatistics calls;
    EventQueue events;

    /// Has the conversation of the Manager shown on the console and followed by the members. All
    /// must outlive the Manager.
    void follow(SimulatedManager& manager, Console& console);
};

}  // namespace manager
