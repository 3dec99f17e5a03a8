#include <limits>

#include "manager/base/json.h"
#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"
#include "manager/recording/replay.h"

namespace manager {
namespace {

constexpr std::array<Option<ReplayOptions>, 2> kReplayOptions{{
    {"--timeout",
     [](Words& words, ReplayOptions& options) {
         options.timeout = take_milliseconds(words, "--timeout");
     }},
    {"--ignore",
     [](Words& words, ReplayOptions& options) {
         options.ignored.insert(take_text(words, "--ignore"));
     }},
}};

Traffic::Filter take_filter(Words& words) {
    Traffic::Filter filter;
    while (!words.at_end()) {
        const std::size_t position = words.position();
        const std::string key = words.name().value_or("");
        const std::string value = take_text(words, "type=, client= or service=");
        if (key == "type") {
            filter.type = value;
        } else if (key == "client") {
            filter.client =
                static_cast<int>(parse_decimal(value, "client", std::numeric_limits<int>::max()));
        } else if (key == "service") {
            filter.service = value;
        } else {
            throw BadCommand("type=, client= or service= expected" +
                             excerpt(std::string(words.line()), position));
        }
    }
    return filter;
}

}  // namespace

void show_calls(CommandContext& context) {
    CallStatistics& calls = context.traffic.calls;
    if (context.console.format() == Format::Json) {
        context.console.event("summary", "\"functions\":" + calls.json());
    } else {
        context.console.line(calls.table());
    }
}

const Commands kTrafficCommands{
    {"record", "[FILE]",
     "Write the conversation to FILE from now on, in place of what is there, or, without FILE, no\n"
     "longer. The lines are those of --json.",
     [](Words& words) -> Action {
         if (words.at_end()) {
             return [](CommandContext& context) { context.traffic.recorder.stop(); };
         }
         return [file = take_text(words, "FILE")](CommandContext& context) {
             context.traffic.recorder.start(file);
         };
     }},
    {"replay", "FILE [--timeout MS] [--ignore NAME]...",
     "Play the Manager's side of a recorded conversation. What it sent is sent in the same order,\n"
     "each packet once those that clients had sent before have come again; the Manager gives no\n"
     "answers of its own. Fails if a packet, a connection or its end does not come within\n"
     "--timeout (5000 ms), if a packet came that is not in FILE, or a task is answered otherwise.\n"
     "Packets of JSON are the same if all members are, apart from Service_Id, service_id, QueryId\n"
     "and the NAMEs, at any depth; other packets if the texts are. Replies to different tasks and\n"
     "other packets between two of the Manager's may come in any order. Clients that are\n"
     "connected already stand for those that were when the recording began.",
     [](Words& words) -> Action {
         ReplayOptions options;
         take_options(words, kReplayOptions, options);
         const std::string file = take_text(words, "FILE");
         take_options(words, kReplayOptions, options);
         return [file, options](CommandContext& context) { Replay(file, options, context).run(); };
     }},
    {"watch", "[type=TYPE] [client=N] [service=SERVICE]",
     "Show the packets that fit, and no others, until Ctrl-C: those of a \"req_type\", of a "
     "client, of\n"
     "the client that serves a service.",
     [](Words& words) -> Action {
         return [filter = take_filter(words)](CommandContext& context) {
             context.traffic.watch(filter);
             while (context.interruption.signal() == 0) context.interruption.sleep(kMaxDuration);
             context.traffic.watch(std::nullopt);
         };
     }},
    {"summary", "",
     "Print for each function the number of calls so far, of replies, of those with a status "
     "other\n"
     "than 0, of calls without a reply, and the latencies, from the call sent to the reply\n"
     "received. Also printed at the end and after call --count.",
     [](Words&) -> Action { return show_calls; }},
};

}  // namespace manager
