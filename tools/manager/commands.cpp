#include "manager/commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>

#include "manager/arguments.h"
#include "manager/call_command.h"

namespace manager {
namespace {

constexpr std::chrono::milliseconds kDefaultExpectTimeout(2000);
// Enough of a packet to recognise it in a message.
constexpr std::size_t kShownBytes = 200;

struct Command {
    const char* name;
    const char* arguments;
    const char* help;
    /// Reads the arguments, all of `words`.
    Action (*parse)(Words& words);
};

struct Session {
    std::int64_t id;
    std::vector<Target> targets;
};

Action parse_session(Words& words, void (*send)(SimulatedManager&, const Session&)) {
    // Braces, because they take the words from left to right.
    const Session session{take_session(words), take_targets(words)};
    return [session, send](CommandContext& context) { send(context.manager, session); };
}

Action parse_start(Words& words) {
    return parse_session(words, [](SimulatedManager& manager, const Session& session) {
        manager.start_session(session.id, session.targets);
    });
}

Action parse_ready(Words& words) {
    return parse_session(words, [](SimulatedManager& manager, const Session& session) {
        manager.ready_session(session.id, session.targets);
    });
}

Action parse_send(Words& words) {
    if (words.peek() != '@') {
        return [text = words.rest("RAW-TEXT")](CommandContext& context) {
            if (context.manager.send_to_all(text) == 0) {
                throw CommandFailed("no client is connected");
            }
        };
    }
    const int client = static_cast<int>(
        parse_decimal(words.word("@CLIENT").substr(1), "@CLIENT", std::numeric_limits<int>::max()));
    return [client, text = words.rest("RAW-TEXT")](CommandContext& context) {
        context.manager.send(client, text);
    };
}

using RuleChange = void (SimulatedManager::*)(Step, std::optional<Opcode>);

Action parse_rule(Words& words, RuleChange change) {
    const Step step = take_step(words);
    if (step == Step::Init && !words.at_end()) throw BadCommand("init is not for one opcode");
    return [change, step, opcode = take_optional_opcode(words)](CommandContext& context) {
        (context.manager.*change)(step, opcode);
    };
}

Action parse_refuse(Words& words) {
    return parse_rule(words, &SimulatedManager::refuse);
}
Action parse_accept(Words& words) {
    return parse_rule(words, &SimulatedManager::accept);
}

Action parse_close(Words&) {
    return [](CommandContext& context) { context.manager.close_clients(); };
}

void expect(SimulatedManager& manager, const Matcher& matcher, std::chrono::milliseconds timeout) {
    if (manager.expect(matcher, timeout)) return;
    const auto others = manager.unexpected();
    const std::string newest =
        others.empty() ? "" : ", at last " + one_line(others.back().text.substr(0, kShownBytes));
    throw CommandFailed(
        fmt::format("expected within {} ms from a client a packet {}\n    since the last expect "
                    "that was met {} other packets came{}",
                    timeout.count(), matcher.description(), others.size(), newest));
}

Action parse_expect(Words& words) {
    const Matcher matcher = take_matcher(words);
    const auto timeout = words.at_end() ? kDefaultExpectTimeout : take_milliseconds(words, "MS");
    return
        [matcher, timeout](CommandContext& context) { expect(context.manager, matcher, timeout); };
}

Action parse_sleep(Words& words) {
    return [duration = take_milliseconds(words, "MS")](CommandContext& context) {
        context.interruption.sleep(duration);
    };
}

Action parse_help(Words& words);

Action parse_quit(Words&) {
    return [](CommandContext& context) { context.quit = true; };
}

constexpr std::array<Command, 11> kCommands{{
    {"start", "SESSION OPCODE:SUBSYS[,SUBSYS]...",
     "Start a session for the subsystems of one or more opcodes. OPCODE is hexadecimal, SESSION\n"
     "and SUBSYS are decimal.",
     parse_start},
    {"ready", "SESSION OPCODE:SUBSYS[,SUBSYS]...", "Report a session as ready.", parse_ready},
    {"call", "[--count N] [--in-flight M] [--timeout MS] SESSION OPCODE:SUBSYS NAME [ARGS-JSON]",
     "Have the function NAME executed and print its reply. ARGS-JSON is the array of arguments,\n"
     "as in [{\"id\":0,\"type\":\"uint8\",\"value\":5}]. Fails if no reply comes within --timeout\n"
     "(5000 ms). With --count, executes it N times with M tasks in flight (1) and prints figures;\n"
     "a terminal then shows a bar instead of the packets.",
     parse_call},
    {"send", "[@CLIENT] RAW-TEXT", "Send the rest of the line to one client or to every client.",
     parse_send},
    {"refuse", "init|auth|ready [OPCODE]",
     "Refuse the step from now on, for one opcode or for all of them.", parse_refuse},
    {"accept", "init|auth|ready [OPCODE]", "Accept the step again.", parse_accept},
    {"close", "", "Close the connections of all clients.", parse_close},
    {"expect", "TEXT|/REGEX/ [MS]",
     "Wait up to MS (2000) for a packet from a client that contains TEXT, which may be quoted, or\n"
     "a match of the POSIX extended REGEX. Begins after the packet of the last expect that was\n"
     "met, and so finds a packet that came before the command was reached.",
     parse_expect},
    {"sleep", "MS", "Wait.", parse_sleep},
    {"help", "[COMMAND]", "Explain a command, or list them.", parse_help},
    {"quit", "", "End the program.", parse_quit},
}};

std::string usage(const Command& command) {
    return *command.arguments == '\0' ? command.name
                                      : fmt::format("{} {}", command.name, command.arguments);
}

const Command& find_command(const std::string& name) {
    const auto command = std::find_if(kCommands.begin(), kCommands.end(),
                                      [&](const Command& c) { return c.name == name; });
    if (command != kCommands.end()) return *command;
    throw BadCommand(fmt::format("there is no command \"{}\"; help lists the commands", name));
}

Action parse_help(Words& words) {
    std::string text;
    if (!words.at_end()) {
        const Command& command = find_command(words.word("COMMAND"));
        text = fmt::format("{}\n{}", usage(command), command.help);
    } else {
        for (const Command& command : kCommands) text += usage(command) + '\n';
        text += "A # begins a comment.";
    }
    return [text](CommandContext& context) { context.console.line(text); };
}

}  // namespace

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
