// What commands and replays share: the Manager, the console and what follows the conversation.
#pragma once

#include "manager/console/console.h"
#include "manager/console/interruption.h"
#include "manager/recording/traffic.h"
#include "manager/simulation/Manager.h"

namespace manager {

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
