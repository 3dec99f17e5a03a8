#include "manager/commands/commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "manager/base/json.h"
#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"

namespace manager {
namespace {

struct Command {
    const char* name;
    const char* arguments;
    const char* help;
    /// Reads the arguments, all of `words`.
    Action (*parse)(Words& words);
};

Action parse_sleep(Words& words) {
    return [duration = take_milliseconds(words, "MS")](CommandContext& context) {
        context.interruption.sleep(duration);
    };
}

Action parse_help(Words& words);

Action parse_quit(Words&) {
    return [](CommandContext& context) { context.quit = true; };
}

constexpr std::array<Command, 30> kCommands{{
    {"start", "SESSION OPCODE:SUBSYS[,SUBSYS]...",
     "Start a session for the subsystems of one or more opcodes. OPCODE is hexadecimal, SESSION\n"
     "and SUBSYS are decimal.",
     parse_start},
    {"ready", "SESSION OPCODE:SUBSYS[,SUBSYS]...", "Report a session as ready.", parse_ready},
    {"services", "",
     "List the services that are registered: the opcode, the name, the subsystems, the client,\n"
     "whether it is ready, and the sessions that it takes part in.",
     parse_services},
    {"describe", "[SERVICE[.FUNCTION]]",
     "Show the functions that a service, given by its name or opcode, or every service declares,\n"
     "with the types of arguments and results; of one function an example of a call, too.",
     parse_describe},
    {"call",
     "[--session N] [--status N] [--timeout MS] [--count N] [--in-flight M] "
     "SERVICE.FUNCTION [NAME=]VALUE... | SESSION OPCODE:SUBSYS NAME [ARGS-JSON]",
     "Have a function executed and print its reply. SERVICE is a name or an opcode. The values "
     "are\n"
     "checked against what the service declares before anything is sent; one of a struct is an\n"
     "object, one of a vector an array, one with blanks goes between quotes:\n"
     "    call lamp.set_scene scene='{\"name\":\"x\",\"zones\":[1,2]}' seconds=2.5\n"
     "Opens a session by itself, from number 1000 on, which later calls use, too, unless "
     "--session\n"
     "says which. Fails if the status of the reply is not 0, or that of --status, or if no reply\n"
     "comes within --timeout (5000 ms).\n"
     "The second form sends anything, even what is not declared, and takes any status unless\n"
     "--status is given; ARGS-JSON is the array of arguments as the task has it, as in\n"
     "[{\"id\":0,\"type\":\"uint8\",\"value\":5}].\n"
     "With --count, executes the function N times with M tasks in flight (1) and prints figures; "
     "a\n"
     "terminal then shows a bar instead of the packets.",
     parse_call},
    {"end", "SESSION [OPCODE:SUBSYS[,SUBSYS]...]...",
     "End a session for these subsystems or, without any, as a whole: for the clients for which\n"
     "it was started, for every client if there are none.",
     parse_end},
    {"permission-change", "PERMISSION granted|denied [--session N] [--package TEXT]",
     "Notify every client of a permission that changed, in a session (0) and for a package (an\n"
     "empty text). Does not change the answers to queries.",
     parse_permission_change},
    {"state-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a state that changed, as permission-change does. A NAME, a VALUE or\n"
     "a TEXT with blanks goes between quotes.",
     parse_state_change},
    {"setting-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a system setting that changed, as state-change does.",
     parse_setting_change},
    {"grant", "PERMISSION", "Grant a permission to whoever asks from now on. At first none is.",
     parse_grant},
    {"deny", "PERMISSION", "Deny a permission again.", parse_deny},
    {"info", "NAME VALUE|--error TEXT",
     "Answer queries and monitors of NAME by SUCCESS:VALUE or ERROR:TEXT from now on, with the\n"
     "rest of the line. Other names give ERROR:unknown.",
     parse_info},
    {"refuse", "TYPE [OPCODE]",
     "Refuse requests from now on. TYPE is init, auth, ready, permission or info; auth and ready\n"
     "can be refused for one opcode.",
     parse_refuse},
    {"accept", "TYPE [OPCODE]", "Accept such requests again.", parse_accept},
    {"delay", "TYPE MS",
     "Send the Manager's answers to such requests MS late from now on. Nothing else waits for\n"
     "them. A client that has gone meanwhile gets none.",
     parse_delay},
    {"drop", "TYPE", "Do not answer such requests from now on.", parse_drop},
    {"twice", "TYPE", "Send each answer to such requests twice from now on.", parse_twice},
    {"answer", "TYPE",
     "Answer such requests again, at once and once: the end of delay, drop and twice.",
     parse_answer},
    {"send", "[@CLIENT] RAW-TEXT", "Send the rest of the line to one client or to every client.",
     parse_send},
    {"expect", "TEXT|/REGEX/ [MS]",
     "Wait up to MS (2000) for a packet from a client that contains TEXT, which may be quoted, or\n"
     "a match of the POSIX extended REGEX. Begins after the packet of the last expect that was\n"
     "met, and so finds a packet that came before the command was reached.",
     parse_expect},
    {"reading", "off|on",
     "Receive nothing from clients, so that their send buffers fill up, or receive again.",
     parse_reading},
    {"close", "[--abrupt]",
     "Close the connections of all clients. With --abrupt, those of which a packet is unread see\n"
     "a reset. With reading off, that are all that have sent something since.",
     parse_close},
    {"restart", "[--abrupt] [MS]",
     "Close all connections and the socket, and come back after MS (0) like a new Manager, which\n"
     "gives ids from 1 and knows no opcodes. What refuse, grant and the like set stays. Ends when\n"
     "the Manager is back. --abrupt is that of close.",
     parse_restart},
    {"record", "[FILE]",
     "Write the conversation to FILE from now on, in place of what is there, or, without FILE, no\n"
     "longer. The lines are those of --json.",
     parse_record},
    {"replay", "FILE [--timeout MS] [--ignore NAME]...",
     "Play the Manager's side of a recorded conversation. What it sent is sent in the same order,\n"
     "each packet once those that clients had sent before have come again; the Manager gives no\n"
     "answers of its own. Fails if a packet, a connection or its end does not come within\n"
     "--timeout (5000 ms), if a packet came that is not in FILE, or a task is answered otherwise.\n"
     "Packets of JSON are the same if all members are, apart from Service_Id, service_id, QueryId\n"
     "and the NAMEs, at any depth; other packets if the texts are. Replies to different tasks and\n"
     "other packets between two of the Manager's may come in any order. Clients that are\n"
     "connected already stand for those that were when the recording began.",
     parse_replay},
    {"watch", "[type=TYPE] [client=N] [service=SERVICE]",
     "Show the packets that fit, and no others, until Ctrl-C: those of a \"req_type\", of a "
     "client, of\n"
     "the client that serves a service.",
     parse_watch},
    {"summary", "",
     "Print for each function the number of calls so far, of replies, of those with a status "
     "other\n"
     "than 0, of calls without a reply, and the latencies, from the call sent to the reply\n"
     "received. Also printed at the end and after call --count.",
     parse_summary},
    {"sleep", "MS", "Wait.", parse_sleep},
    {"help", "[COMMAND]", "Explain a command, or list them.", parse_help},
    {"quit", "", "End the program.", parse_quit},
}};

std::string usage(const Command& command) {
    return *command.arguments == '\0' ? command.name
                                      : fmt::format("{} {}", command.name, command.arguments);
}

auto search_command(const std::string& name) {
    return std::find_if(kCommands.begin(), kCommands.end(),
                        [&](const Command& c) { return c.name == name; });
}

const Command& find_command(const std::string& name) {
    const auto* const command = search_command(name);
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
    return [text](CommandContext& context) {
        context.console.report(text, "help", "\"text\":" + json_text(text));
    };
}

}  // namespace

std::vector<std::string> command_names() {
    std::vector<std::string> names;
    for (const Command& command : kCommands) names.emplace_back(command.name);
    return names;
}

std::string command_arguments(const std::string& name) {
    const auto* const command = search_command(name);
    return command == kCommands.end() ? "" : command->arguments;
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
