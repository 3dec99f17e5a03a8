#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "manager/base/words.h"
#include "manager/recording/traffic.h"

namespace manager {

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
