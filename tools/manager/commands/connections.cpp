#include <fmt/format.h>

#include <limits>

#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {
namespace {

constexpr std::chrono::milliseconds kDefaultExpectTimeout(2000);
// Enough of a packet to recognise it in a message.
constexpr std::size_t kShownBytes = 200;

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

constexpr std::array<Option<Ending>, 1> kEndingOptions{{
    {"--abrupt", [](Words&, Ending& ending) { ending = Ending::Abrupt; }},
}};

void restart(CommandContext& context, Ending ending, std::chrono::milliseconds downtime) {
    context.manager.stop(ending);
    context.interruption.sleep(downtime);
    if (context.interruption.signal() == 0) context.manager.start();
}

}  // namespace

void send_to_every_client(SimulatedManager& manager, const std::string& text) {
    if (manager.send_to_all(text) == 0) throw CommandFailed("no client is connected");
}

const Commands kConnectionCommands{
    {"send", "[@CLIENT] RAW-TEXT", "Send the rest of the line to one client or to every client.",
     [](Words& words) -> Action {
         if (words.peek() != '@') {
             return [text = words.rest("RAW-TEXT")](CommandContext& context) {
                 send_to_every_client(context.manager, text);
             };
         }
         const int client = static_cast<int>(parse_decimal(
             words.word("@CLIENT").substr(1), "@CLIENT", std::numeric_limits<int>::max()));
         return [client, text = words.rest("RAW-TEXT")](CommandContext& context) {
             context.manager.send(client, text);
         };
     }},
    {"expect", "TEXT|/REGEX/ [MS]",
     "Wait up to MS (2000) for a packet from a client that contains TEXT, which may be quoted, or\n"
     "a match of the POSIX extended REGEX. Begins after the packet of the last expect that was\n"
     "met, and so finds a packet that came before the command was reached.",
     [](Words& words) -> Action {
         const Matcher matcher = take_matcher(words);
         const auto timeout =
             words.at_end() ? kDefaultExpectTimeout : take_milliseconds(words, "MS");
         return [matcher, timeout](CommandContext& context) {
             expect(context.manager, matcher, timeout);
         };
     }},
    {"reading", "off|on",
     "Receive nothing from clients, so that their send buffers fill up, or receive again.",
     [](Words& words) -> Action {
         constexpr std::array<Choice<bool>, 2> kChoices{{{"off", false}, {"on", true}}};
         return [reading = take_choice(words, kChoices, "off or on")](CommandContext& context) {
             context.manager.set_reading(reading);
         };
     }},
    {"close", "[--abrupt]",
     "Close the connections of all clients. With --abrupt, those of which a packet is unread see\n"
     "a reset. With reading off, that are all that have sent something since.",
     [](Words& words) -> Action {
         Ending ending = Ending::Orderly;
         take_options(words, kEndingOptions, ending);
         return [ending](CommandContext& context) { context.manager.close_clients(ending); };
     }},
    {"restart", "[--abrupt] [MS]",
     "Close all connections and the socket, and come back after MS (0) like a new Manager, which\n"
     "gives ids from 1 and knows no opcodes. What refuse, grant and the like set stays. Ends when\n"
     "the Manager is back. --abrupt is that of close.",
     [](Words& words) -> Action {
         Ending ending = Ending::Orderly;
         take_options(words, kEndingOptions, ending);
         const auto downtime =
             words.at_end() ? std::chrono::milliseconds(0) : take_milliseconds(words, "MS");
         take_options(words, kEndingOptions, ending);
         return [ending, downtime](CommandContext& c) { restart(c, ending, downtime); };
     }},
};

}  // namespace manager
