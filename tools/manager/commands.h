#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "manager/Manager.h"
#include "manager/console.h"
#include "manager/interruption.h"
#include "manager/traffic.h"
#include "manager/words.h"

namespace manager {

/// What the commands work on.
struct CommandContext {
    SimulatedManager& manager;
    Console& console;
    const Interruption& interruption;
    Traffic& traffic;
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

/// The names of all commands, and the arguments of one as its usage has them; empty if there is no
/// such command.
std::vector<std::string> command_names();
std::string command_arguments(const std::string& name);

/// Prints the figures of the calls so far.
void show_calls(CommandContext& context);

}  // namespace manager
