// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "manager/base/words.h"
#include "manager/recording/traffic.h"

namespace manager {

/// Reads a command, carries it out, and returns when that is done. A blank line or a comment does
/// nothing. Throws BadCommand, with the usage of the command where there is one, if it is not
/// written as it should be; CommandFailed or ManagerError if it fails.
void execute(std::string_view line, CommandContext& context);

/// Takes the arguments up to the end and then carries the command out.
using Run = std::function<void(Words&, CommandContext&)>;

struct Command {
    const char* name;
    const char* arguments;
    const char* help;
    Run run;
};
using Commands = std::vector<Command>;

const Commands& all_commands();
// Those of each file.
extern const Commands kServiceCommands, kCallCommands, kManagerCommands, kTrafficCommands;

/// What is wrong is not how the command is written, so that its usage does not help.
struct WrongCall : BadCommand {
    using BadCommand::BadCommand;
};

/// The service, and the function of it, that SERVICE.FUNCTION is. Throws CommandFailed if there is
/// no such service, WrongCall if it does not declare the function.
std::pair<Service, Json::Value> find_function(const CommandContext& context,
                                              const std::string& name);

/// Prints the figures of the calls so far.
void show_calls(CommandContext& context);

// Each function takes one kind of argument of the commands from `words`, and throws BadCommand if
// it is not there or wrong. `what` names the argument.

std::int64_t take_session(Words& words, const char* what = "SESSION");
Opcode parse_opcode(std::string_view text);
/// One OPCODE:SUBSYS[,SUBSYS]...
Target take_target(Words& words);
/// One or more of them, up to the end.
std::vector<Target> take_targets(Words& words);
Step take_step(Words& words);
std::vector<std::string> step_names();
/// One word, or several between quotes.
std::string take_text(Words& words, const char* what);
/// Empty at the end.
std::string take_optional_text(Words& words, const char* what);
/// TEXT, quoted or one word, or /REGEX/.
Matcher take_matcher(Words& words);
/// A duration of at most 24 hours.
std::chrono::milliseconds take_milliseconds(Words& words, const char* what);
/// The position of the next word among `choices`; `expected` lists them.
std::size_t take_choice(Words& words, const std::vector<std::string>& choices,
                        const char* expected);
/// The options that come next, if any do; what stands beside the name of an option takes its value.
void take_options(Words& words, const std::map<std::string, std::function<void()>>& known);

/// Makes what takes an argument of this name.
template <auto take>
auto named(const char* name) {
    return [name](Words& words) { return take(words, name); };
}

/// Makes a command whose arguments are taken by `take`, in this order, and then handed to `act`, a
/// member of the Manager or a function that has it, or the context, go before them.
template <typename Act, typename... Take>
Run taking(Act act, Take... take) {
    return [=](Words& words, CommandContext& context) {
        // Between braces they are called from left to right.
        const std::tuple<std::invoke_result_t<Take, Words&>...> arguments{take(words)...};
        words.end();
        const auto call = [&](const auto&... values) {
            if constexpr (std::is_invocable_v<Act, CommandContext&, decltype(values)...>) {
                std::invoke(act, context, values...);
            } else {
                std::invoke(act, context.manager, values...);
            }
        };
        std::apply(call, arguments);
    };
}

}  // namespace manager
