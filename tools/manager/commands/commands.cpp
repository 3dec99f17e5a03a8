// SPDX-License-Identifier: Apache-2.0
#include "manager/commands/commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "manager/base/json.h"

namespace manager {
namespace {

std::string usage(const Command& command) {
    return *command.arguments == '\0' ? command.name
                                      : fmt::format("{} {}", command.name, command.arguments);
}

const Command& find_command(const std::string& name) {
    for (const Command& command : all_commands()) {
        if (command.name == name) return command;
    }
    throw BadCommand(fmt::format("there is no command \"{}\"; help lists the commands", name));
}

std::string take_help(Words& words) {
    if (!words.at_end()) {
        const Command& command = find_command(words.word("COMMAND"));
        return fmt::format("{}\n{}", usage(command), command.help);
    }
    std::string text;
    for (const Command& command : all_commands()) text += usage(command) + '\n';
    return text + "A # begins a comment.";
}

void help(CommandContext& context, const std::string& text) {
    context.console.report(text, "help", "\"text\":" + json_text(text));
}

const Commands kOtherCommands{
    {"sleep", "MS", "Wait.",
     taking([](CommandContext& context, auto time) { context.interruption.sleep(time); },
            named<take_milliseconds>("MS"))},
    {"help", "[COMMAND]", "Explain a command, or list them.", taking(help, take_help)},
    {"quit", "", "End the program.", taking([](CommandContext& context) { context.quit = true; })},
};

bool at_quote(Words& words) {
    return words.peek() == '"' || words.peek() == '\'';
}

}  // namespace

const Commands& all_commands() {
    static const Commands kAll = [] {
        Commands all;
        for (const Commands* const some : {&kServiceCommands, &kCallCommands, &kManagerCommands,
                                           &kTrafficCommands, &kOtherCommands}) {
            all.insert(all.end(), some->begin(), some->end());
        }
        return all;
    }();
    return kAll;
}

void execute(std::string_view line, CommandContext& context) {
    Words words(line);
    if (words.at_end() || words.peek() == '#') return;
    const Command& command = find_command(words.word("COMMAND"));
    try {
        command.run(words, context);
    } catch (const WrongCall&) {
        throw;
    } catch (const BadCommand& error) {
        throw BadCommand(fmt::format("{}\n    usage: {}", error.what(), usage(command)));
    }
}

std::int64_t take_session(Words& words, const char* what) {
    return static_cast<std::int64_t>(parse_decimal(words.word(what), what, INT64_MAX));
}

Opcode parse_opcode(std::string_view text) {
    return parse_hexadecimal(text, "OPCODE");
}

Target take_target(Words& words) {
    const std::string text = words.word("OPCODE:SUBSYS");
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        throw BadCommand(fmt::format("OPCODE:SUBSYS expected, not \"{}\"", text));
    }
    Target target{parse_opcode(text.substr(0, colon)), {}};
    for (std::size_t comma = colon; comma != std::string::npos;) {
        const std::size_t begin = comma + 1;
        comma = text.find(',', begin);
        target.subsystems.push_back(static_cast<Subsystem>(
            parse_decimal(text.substr(begin, comma - begin), "SUBSYS", UINT32_MAX)));
    }
    return target;
}

std::vector<Target> take_targets(Words& words) {
    std::vector<Target> targets{take_target(words)};
    while (!words.at_end()) targets.push_back(take_target(words));
    return targets;
}

Step take_step(Words& words) {
    return static_cast<Step>(
        take_choice(words, step_names(), "init, auth, ready, permission or info"));
}

std::vector<std::string> step_names() {
    return {"init", "auth", "ready", "permission", "info"};
}

std::string take_text(Words& words, const char* what) {
    return at_quote(words) ? words.delimited(what) : words.word(what);
}

std::string take_optional_text(Words& words, const char* what) {
    return words.at_end() ? "" : take_text(words, what);
}

Matcher take_matcher(Words& words) {
    if (at_quote(words)) return words.delimited("TEXT");
    if (words.peek() != '/') return words.word("TEXT or /REGEX/");
    try {
        return Matcher::regex(words.delimited("/REGEX/"));
    } catch (const std::invalid_argument& error) {
        throw BadCommand(error.what());
    }
}

std::chrono::milliseconds take_milliseconds(Words& words, const char* what) {
    const auto max = static_cast<std::uint64_t>(kMaxDuration.count());
    return std::chrono::milliseconds(parse_decimal(words.word(what), what, max));
}

std::size_t take_choice(Words& words, const std::vector<std::string>& choices,
                        const char* expected) {
    const std::string word = words.word(expected);
    const auto choice = std::find(choices.begin(), choices.end(), word);
    if (choice != choices.end()) return static_cast<std::size_t>(choice - choices.begin());
    throw BadCommand(fmt::format("{} expected, not \"{}\"", expected, word));
}

void take_options(Words& words, const std::map<std::string, std::function<void()>>& known) {
    while (words.at_option()) {
        const std::string name = words.word("option");
        const auto option = known.find(name);
        if (option == known.end()) throw BadCommand("there is no option " + name);
        option->second();
    }
}

}  // namespace manager
