// SPDX-License-Identifier: Apache-2.0
// What the Manager is told to do: sessions, notices, answers and connections.

#include <fmt/format.h>

#include <climits>

#include "manager/commands/commands.h"

namespace manager {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kDefaultExpectTimeout(2000);
// Enough of a packet to recognise it in a message.
constexpr std::size_t kShownBytes = 200;

void send_to_every_client(SimulatedManager& manager, const std::string& text) {
    if (manager.send_to_all(text) == 0) throw CommandFailed("no client is connected");
}

void send(SimulatedManager& manager, std::optional<int> client, const std::string& text) {
    if (!client) return send_to_every_client(manager, text);
    manager.send(*client, text);
}

void expect(SimulatedManager& manager, const Matcher& matcher, milliseconds timeout) {
    if (manager.expect(matcher, timeout)) return;
    const auto others = manager.unexpected();
    const std::string newest =
        others.empty() ? "" : ", at last " + one_line(others.back().text.substr(0, kShownBytes));
    throw CommandFailed(
        fmt::format("expected within {} ms from a client a packet {}\n    since the last expect "
                    "that was met {} other packets came{}",
                    timeout.count(), matcher.description(), others.size(), newest));
}

void restart(CommandContext& context, Ending first, milliseconds downtime, Ending last) {
    context.manager.stop(first == Ending::Abrupt ? first : last);
    context.interruption.sleep(downtime);
    if (context.interruption.signal() == 0) context.manager.start();
}

void answer_normally(SimulatedManager& manager, Step step) {
    manager.set_drop(step, false);
    manager.set_twice(step, false);
    manager.set_delay(step, milliseconds(0));
}

Affected take_affected(Words& words) {
    Affected affected;
    take_options(words,
                 {{"--session", [&] { affected.session = take_session(words, "--session"); }},
                  {"--package", [&] { affected.package = take_text(words, "--package"); }}});
    return affected;
}

bool take_granted(Words& words) {
    return take_choice(words, {"denied", "granted"}, "granted or denied") == 1;
}

std::string take_info(Words& words) {
    bool is_error = false;
    take_options(words, {{"--error", [&] { is_error = true; }}});
    return is_error ? "ERROR:" + words.rest("TEXT") : "SUCCESS:" + words.rest("VALUE");
}

std::optional<int> take_client(Words& words) {
    if (words.peek() != '@') return std::nullopt;
    return static_cast<int>(parse_decimal(words.word("@CLIENT").substr(1), "@CLIENT", INT_MAX));
}

Ending take_ending(Words& words) {
    Ending ending = Ending::Orderly;
    take_options(words, {{"--abrupt", [&] { ending = Ending::Abrupt; }}});
    return ending;
}

auto milliseconds_or(milliseconds otherwise) {
    return
        [=](Words& words) { return words.at_end() ? otherwise : take_milliseconds(words, "MS"); };
}

template <typename Message, typename Take>
Run change(Message message, const char* name, Take take_value) {
    const auto send = [=](SimulatedManager& manager, const auto&... values) {
        send_to_every_client(manager, message(values...));
    };
    return taking(send, named<take_text>(name), take_value, take_affected);
}

Run rule(decltype(&SimulatedManager::refuse) change) {
    return [=](Words& words, CommandContext& context) {
        const Step step = take_step(words);
        const bool has_opcode = step == Step::Auth || step == Step::Ready;
        if (!has_opcode && !words.at_end()) {
            throw BadCommand("only auth and ready can be for one OPCODE");
        }
        std::optional<Opcode> opcode;
        if (!words.at_end()) opcode = parse_opcode(words.word("OPCODE"));
        words.end();
        (context.manager.*change)(step, opcode);
    };
}

}  // namespace

const Commands kManagerCommands{
    {"start", "SESSION OPCODE:SUBSYS[,SUBSYS]...",
     "Start a session for the subsystems of one or more opcodes. OPCODE is hexadecimal, SESSION\n"
     "and SUBSYS are decimal.",
     taking(&SimulatedManager::start_session, named<take_session>("SESSION"), take_targets)},
    {"ready", "SESSION OPCODE:SUBSYS[,SUBSYS]...", "Report a session as ready.",
     taking(&SimulatedManager::ready_session, named<take_session>("SESSION"), take_targets)},
    {"end", "SESSION [OPCODE:SUBSYS[,SUBSYS]...]...",
     "End a session for these subsystems or, without any, as a whole: for the clients for which\n"
     "it was started, for every client if there are none.",
     taking(&SimulatedManager::end_session, named<take_session>("SESSION"),
            [](Words& words) {
                return words.at_end() ? std::vector<Target>() : take_targets(words);
            })},
    {"permission-change", "PERMISSION granted|denied [--session N] [--package TEXT]",
     "Notify every client of a permission that changed, in a session (0) and for a package (an\n"
     "empty text). Does not change the answers to queries.",
     change(permission_change_message, "PERMISSION", take_granted)},
    {"state-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a state that changed, as permission-change does. A NAME, a VALUE or\n"
     "a TEXT with blanks goes between quotes.",
     change(state_change_message, "NAME", named<take_text>("VALUE"))},
    {"setting-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a system setting that changed, as state-change does.",
     change(setting_change_message, "NAME", named<take_text>("VALUE"))},
    {"grant", "PERMISSION", "Grant a permission to whoever asks from now on. At first none is.",
     taking(&SimulatedManager::grant, named<take_text>("PERMISSION"))},
    {"deny", "PERMISSION", "Deny a permission again.",
     taking(&SimulatedManager::deny, named<take_text>("PERMISSION"))},
    {"info", "NAME VALUE|--error TEXT",
     "Answer queries and monitors of NAME by SUCCESS:VALUE or ERROR:TEXT from now on, with the\n"
     "rest of the line. Other names give ERROR:unknown.",
     taking(&SimulatedManager::set_info, named<take_text>("NAME"), take_info)},
    {"refuse", "TYPE [OPCODE]",
     "Refuse requests from now on. TYPE is init, auth, ready, permission or info; auth and ready\n"
     "can be refused for one opcode.",
     rule(&SimulatedManager::refuse)},
    {"accept", "TYPE [OPCODE]", "Accept such requests again.", rule(&SimulatedManager::accept)},
    {"delay", "TYPE MS",
     "Send the Manager's answers to such requests MS late from now on. Nothing else waits for\n"
     "them. A client that has gone meanwhile gets none.",
     taking(&SimulatedManager::set_delay, take_step, named<take_milliseconds>("MS"))},
    {"drop", "TYPE", "Do not answer such requests from now on.",
     taking([](SimulatedManager& manager, Step step) { manager.set_drop(step, true); }, take_step)},
    {"twice", "TYPE", "Send each answer to such requests twice from now on.",
     taking([](SimulatedManager& manager, Step step) { manager.set_twice(step, true); },
            take_step)},
    {"answer", "TYPE",
     "Answer such requests again, at once and once: the end of delay, drop and twice.",
     taking(answer_normally, take_step)},
    {"send", "[@CLIENT] RAW-TEXT", "Send the rest of the line to one client or to every client.",
     taking(send, take_client, [](Words& words) { return words.rest("RAW-TEXT"); })},
    {"expect", "TEXT|/REGEX/ [MS]",
     "Wait up to MS (2000) for a packet from a client that contains TEXT, which may be quoted, or\n"
     "a match of the POSIX extended REGEX. Begins after the packet of the last expect that was\n"
     "met, and so finds a packet that came before the command was reached.",
     taking(expect, take_matcher, milliseconds_or(kDefaultExpectTimeout))},
    {"reading", "off|on",
     "Receive nothing from clients, so that their send buffers fill up, or receive again.",
     taking(&SimulatedManager::set_reading,
            [](Words& words) {
                return take_choice(words, {"off", "on"}, "off or on") == 1;
            })},
    {"close", "[--abrupt]",
     "Close the connections of all clients. With --abrupt, those of which a packet is unread see\n"
     "a reset. With reading off, that are all that have sent something since.",
     taking(&SimulatedManager::close_clients, take_ending)},
    {"restart", "[--abrupt] [MS]",
     "Close all connections and the socket, and come back after MS (0) like a new Manager, which\n"
     "gives ids from 1 and knows no opcodes. What refuse, grant and the like set stays. Ends when\n"
     "the Manager is back. --abrupt is that of close.",
     taking(restart, take_ending, milliseconds_or(milliseconds(0)), take_ending)},
};

}  // namespace manager
