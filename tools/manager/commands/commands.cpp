#include "manager/commands/commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "manager/base/json.h"
#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {
namespace {

const Commands& all_commands();

std::string usage(const Command& command) {
    return *command.arguments == '\0' ? command.name
                                      : fmt::format("{} {}", command.name, command.arguments);
}

/// Null if there is none.
const Command* search_command(const std::string& name) {
    const Commands& all = all_commands();
    const auto command =
        std::find_if(all.begin(), all.end(), [&](const Command& c) { return c.name == name; });
    return command == all.end() ? nullptr : &*command;
}

const Command& find_command(const std::string& name) {
    if (const Command* const command = search_command(name)) return *command;
    throw BadCommand(fmt::format("there is no command \"{}\"; help lists the commands", name));
}

Action help(Words& words) {
    std::string text;
    if (!words.at_end()) {
        const Command& command = find_command(words.word("COMMAND"));
        text = fmt::format("{}\n{}", usage(command), command.help);
    } else {
        for (const Command& command : all_commands()) text += usage(command) + '\n';
        text += "A # begins a comment.";
    }
    return [text](CommandContext& context) {
        context.console.report(text, "help", "\"text\":" + json_text(text));
    };
}

const Commands kOtherCommands{
    {"sleep", "MS", "Wait.",
     [](Words& words) -> Action {
         return [duration = take_milliseconds(words, "MS")](CommandContext& context) {
             context.interruption.sleep(duration);
         };
     }},
    {"help", "[COMMAND]", "Explain a command, or list them.", help},
    {"quit", "", "End the program.",
     [](Words&) -> Action { return [](CommandContext& context) { context.quit = true; }; }},
};

const Commands& all_commands() {
    static const Commands kAll = [] {
        Commands all;
        for (const Commands* const some :
             {&kServiceCommands, &kCallCommands, &kSessionCommands, &kNoticeCommands,
              &kAnswerCommands, &kConnectionCommands, &kTrafficCommands, &kOtherCommands}) {
            all.insert(all.end(), some->begin(), some->end());
        }
        return all;
    }();
    return kAll;
}

}  // namespace

std::vector<std::string> command_names() {
    std::vector<std::string> names;
    for (const Command& command : all_commands()) names.emplace_back(command.name);
    return names;
}

std::string command_arguments(const std::string& name) {
    const Command* const command = search_command(name);
    return command == nullptr ? "" : command->arguments;
}

Action parse_command(std::string_view line) {
    Words words(line);
    if (words.at_end() || words.peek() == '#') return [](CommandContext&) {};
    const Command& command = find_command(words.word("COMMAND"));
    try {
        Action action = command.parse(words);
        words.end();
        return action;
    } catch (const BadCommand& error) {
        throw BadCommand(fmt::format("{}\n    usage: {}", error.what(), usage(command)));
    }
}

}  // namespace manager
