// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "manager/commands/commands.h"

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

/// Where command lines come from: waits for the next line and returns it without its end; nothing
/// at the end of the lines or when the program is interrupted.
using LineSource = std::function<std::optional<std::string>()>;

/// The lines of a file or pipe, which stays open. Reads what there is without waiting for more, so
/// that a line of a pipe is available as soon as it is written.
LineSource file_lines(int file, const Interruption& interruption);

/// The lines a user edits on the terminal, with a history that is kept for the next time, in the
/// user's state directory. Lines that the console prints meanwhile appear above the prompt. The
/// context must outlive the source.
LineSource edited_lines(CommandContext& context);

/// The words that the last word of `line`, an unfinished command, can become, sorted: commands,
/// their options, the words that an argument is one of, files, and what the services declare. A
/// word that goes on ends in a slash, a dot or an equals sign.
std::vector<std::string> completions(const std::string& line, const Services& services);

// Return the exit status, of the first that fails.

/// Carries out a step that no command asks for, named `name`. The message of a failure begins with
/// `where`.
int run_step(const std::string& name, CommandContext& context, const std::function<void()>& step,
             const std::string& where = "");
int run_command(const std::string& line, CommandContext& context, const std::string& where = "");
/// Carries out the commands of a script, named `name` in messages, until it ends, one of them
/// fails or the program is interrupted.
int run_script(const LineSource& lines, const std::string& name, CommandContext& context);
/// Carries out the commands of a user, who is told what fails and goes on.
int run_prompt(const LineSource& lines, CommandContext& context);

}  // namespace manager
