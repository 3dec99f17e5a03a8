#pragma once

#include <string>

#include "manager/commands/commands.h"
#include "manager/prompt/line_source.h"

namespace manager {

/// How the program ends.
enum ExitStatus : int {
    kSucceeded = 0,
    kCommandFailed = 1,
    kBadUsage = 2,
    kCannotRun = 3,
    /// Plus the number of the signal that interrupted a command.
    kInterrupted = 128,
};

/// Carries out the commands of a script, named `name` in messages, until it ends, one of them
/// fails or the program is interrupted. Returns the exit status.
int run_script(LineSource& lines, const std::string& name, CommandContext& context);

/// Carries out a step that no command asks for, named `name`. Returns the exit status.
int run_step(const std::string& name, const Action& step, CommandContext& context);

/// Carries out the commands of a user, who is told what fails and goes on.
void run_prompt(LineSource& lines, CommandContext& context);

}  // namespace manager
