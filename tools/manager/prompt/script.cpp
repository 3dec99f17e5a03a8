#include "manager/prompt/script.h"

#include <fmt/format.h>

#include "manager/base/json.h"

namespace manager {
namespace {

struct Outcome {
    int status;
    std::string message;
};

Outcome attempt(const std::function<void()>& step) try {
    step();
    return {kSucceeded, {}};
} catch (const BadCommand& error) {
    return {kBadUsage, error.what()};
} catch (const CommandFailed& error) {
    return {kCommandFailed, error.what()};
} catch (const ManagerError& error) {
    return {kCommandFailed, error.what()};
}

void tell_outcome(const std::string& command, const Outcome& outcome, Console& console) {
    std::string members =
        fmt::format(R"("command":{},"status":{})", json_text(command), outcome.status);
    if (outcome.status != kSucceeded) members += ",\"error\":" + json_text(outcome.message);
    console.event("result", members);
}

bool is_blank(const std::string& line) {
    Words words(line);
    return words.at_end() || words.peek() == '#';
}

/// `name` is the command line or what stands for it.
Outcome run(const std::string& name, const Action& step, CommandContext& context) {
    Outcome outcome = attempt([&] { step(context); });
    if (const int signal = context.interruption.signal()) {
        outcome = {kInterrupted + signal, fmt::format("interrupted by signal {}", signal)};
    }
    const std::size_t faults = context.traffic.faults;
    if (context.strict && outcome.status == kSucceeded && faults > 0) {
        outcome = {kCommandFailed, fmt::format("services made {} faults, see above", faults)};
    }
    tell_outcome(name, outcome, context.console);
    return outcome;
}

Outcome run_command(const std::string& line, CommandContext& context) {
    if (is_blank(line)) return {kSucceeded, {}};
    return run(
        line, [&](CommandContext& c) { parse_command(line)(c); }, context);
}

}  // namespace

int run_script(LineSource& lines, const std::string& name, CommandContext& context) {
    for (int number = 1; !context.quit; ++number) {
        const auto line = lines.next();
        if (!line) break;
        const Outcome outcome = run_command(*line, context);
        if (outcome.status == kSucceeded) continue;
        context.console.error(
            fmt::format("{}:{}: {}\n    {}", name, number, *line, outcome.message));
        return outcome.status;
    }
    return kSucceeded;
}

int run_step(const std::string& name, const Action& step, CommandContext& context) {
    const Outcome outcome = run(name, step, context);
    if (outcome.status != kSucceeded) context.console.error(outcome.message);
    return outcome.status;
}

void run_prompt(LineSource& lines, CommandContext& context) {
    while (!context.quit) {
        const auto line = lines.next();
        if (!line) return;
        // An earlier command or line may have been cancelled.
        context.manager.set_waiting(true);
        const Outcome outcome = run_command(*line, context);
        if (outcome.status != kSucceeded) context.console.error(outcome.message);
        // Ctrl-C has ended the command, not the program.
        context.interruption.forgive();
    }
}

}  // namespace manager
