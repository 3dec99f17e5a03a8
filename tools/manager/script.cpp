#include "manager/script.h"

#include <fmt/format.h>

namespace manager {
namespace {

struct Outcome {
    int status;
    std::string message;
};

Outcome run_command(const std::string& line, CommandContext& context) try {
    parse_command(line)(context);
    return {kSucceeded, {}};
} catch (const BadCommand& error) {
    return {kBadUsage, error.what()};
} catch (const CommandFailed& error) {
    return {kCommandFailed, error.what()};
} catch (const ManagerError& error) {
    return {kCommandFailed, error.what()};
}

}  // namespace

int run_script(LineSource& lines, const std::string& name, CommandContext& context) {
    for (int number = 1; !context.quit; ++number) {
        const auto line = lines.next();
        if (!line) break;
        Outcome outcome = run_command(*line, context);
        if (const int signal = context.interruption.signal()) {
            outcome = {kInterrupted + signal, fmt::format("interrupted by signal {}", signal)};
        }
        if (outcome.status == kSucceeded) continue;
        context.console.error(
            fmt::format("{}:{}: {}\n    {}", name, number, *line, outcome.message));
        return outcome.status;
    }
    return kSucceeded;
}

void run_prompt(LineSource& lines, CommandContext& context) {
    while (!context.quit) {
        const auto line = lines.next();
        if (!line) return;
        const Outcome outcome = run_command(*line, context);
        if (outcome.status != kSucceeded) context.console.error(outcome.message);
    }
}

}  // namespace manager
