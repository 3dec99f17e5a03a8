#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "manager/Manager.h"
#include "manager/console.h"
#include "manager/interruption.h"
#include "manager/words.h"

namespace manager {

/// What the commands work on.
struct CommandContext {
    SimulatedManager& manager;
    Console& console;
    const Interruption& interruption;
    /// Set by the command that ends the program.
    bool quit = false;
};

/// A command did not do what it is for; what() says what was expected.
class CommandFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Carries a command out; throws CommandFailed or ManagerError if that fails.
using Action = std::function<void(CommandContext&)>;

/// Reads one command. A blank line or a comment is the command that does nothing. Throws
/// BadCommand, with the usage of the command where there is one.
Action parse_command(std::string_view line);

}  // namespace manager
