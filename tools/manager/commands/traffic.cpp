#include <limits>

#include "manager/base/durations.h"
#include "manager/base/json.h"
#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"
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

Action parse_watch(Words& words) {
    return [filter = take_filter(words)](CommandContext& context) {
        context.traffic.watch(filter);
        while (context.interruption.signal() == 0) context.interruption.sleep(kMaxDuration);
        context.traffic.watch(std::nullopt);
    };
}

Action parse_record(Words& words) {
    if (words.at_end()) {
        return [](CommandContext& context) { context.traffic.recorder.stop(); };
    }
    return [file = take_text(words, "FILE")](CommandContext& context) {
        context.traffic.recorder.start(file);
    };
}

Action parse_replay(Words& words) {
    ReplayOptions options;
    take_options(words, kReplayOptions, options);
    const std::string file = take_text(words, "FILE");
    take_options(words, kReplayOptions, options);
    return [file, options](CommandContext& context) { Replay(file, options, context).run(); };
}

Action parse_summary(Words&) {
    return [](CommandContext& context) { show_calls(context); };
}

void show_calls(CommandContext& context) {
    CallStatistics& calls = context.traffic.calls;
    if (context.console.format() == Format::Json) {
        context.console.event("summary", "\"functions\":" + calls.json());
    } else {
        context.console.line(calls.table());
    }
}

}  // namespace manager
