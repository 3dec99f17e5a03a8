// SPDX-License-Identifier: Apache-2.0
// What commands and replays share: the Manager, the console and what follows the conversation.
#pragma once

#include <atomic>
#include <deque>

#include "manager/console/console.h"
#include "manager/console/interruption.h"
#include "manager/recording/recording.h"
#include "manager/services/services.h"
#include "manager/simulation/Manager.h"

namespace manager {

/// What follows the conversation besides the console. Thread-safety: as its members.
struct Traffic {
    Recorder recorder;
    /// Records for pictures, whatever the commands record.
    Recorder pictured;
    /// What has happened since a replay began to follow. The lock of the Manager guards it.
    std::optional<std::deque<Event>> events;
    Services services;
    /// How many faults of services there were.
    std::atomic<std::size_t> faults{0};

    /// Has only those packets shown, even on a console that shows none, that are of this message
    /// type, client and service, as far as these are given; an empty filter ends that.
    struct Filter {
        std::string type = {};
        std::optional<int> client = {};
        /// A name or an opcode; it stands for the packets of the client that serves it.
        std::string service = {};
    };
    void watch(std::optional<Filter> filter);

    /// Has the conversation of the Manager shown on the console and followed by the members. All
    /// must outlive the Manager.
    void follow(SimulatedManager& manager, Console& console);

  private:
    void show(const Event& event, const std::optional<Json::Value>& message, Console& console);

    std::mutex mutex_;
    std::optional<Filter> filter_;
};

/// What commands and replays work on.
struct CommandContext {
    SimulatedManager& manager;
    Console& console;
    const Interruption& interruption;
    Traffic& traffic;
    /// Set by the command that ends the program.
    bool quit = false;
    /// Whether a fault of a service makes the next command of a script fail.
    bool strict = false;
};

}  // namespace manager
