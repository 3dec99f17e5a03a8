#include <fmt/format.h>

#include <array>
#include <limits>
#include <utility>

#include "manager/base/json.h"
#include "manager/calls/load.h"
#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"

namespace manager {
namespace {

constexpr std::chrono::milliseconds kProgressInterval(100);
constexpr std::size_t kProgressWidth = 40;
// More tasks than this in flight only wait in the client's queue.
constexpr std::size_t kMaxInFlight = 100'000;

std::size_t take_count(Words& words, const char* what, std::size_t max) {
    const std::size_t count = parse_decimal(words.word(what), what, max);
    if (count == 0) throw BadCommand(fmt::format("{} must be at least 1", what));
    return count;
}

constexpr std::array<Option<LoadOptions>, 3> kOptions{{
    {"--count",
     [](Words& words, LoadOptions& options) {
         options.count = take_count(words, "--count", std::numeric_limits<std::uint32_t>::max());
     }},
    {"--in-flight",
     [](Words& words, LoadOptions& options) {
         options.in_flight = take_count(words, "--in-flight", kMaxInFlight);
     }},
    {"--timeout",
     [](Words& words, LoadOptions& options) {
         options.timeout = take_milliseconds(words, "--timeout");
     }},
}};

std::string take_arguments(Words& words) {
    if (words.peek() == '\0') return "[]";
    std::string text = words.json_array("ARGS-JSON");
    if (!parse_json(text)) throw BadCommand("ARGS-JSON is not JSON: " + text);
    return text;
}

Task take_task(Words& words, LoadOptions& options) {
    const std::int64_t session = take_session(words);
    const Target target = take_target(words);
    if (target.subsystems.size() != 1) throw BadCommand("a call is for one SUBSYS");
    std::string name = words.word("NAME");
    take_options(words, kOptions, options);
    return {session, target.opcode, target.subsystems.front(), std::move(name),
            take_arguments(words)};
}

void call_once(CommandContext& context, const Task& task, std::chrono::milliseconds timeout) {
    const auto reply = context.manager.await_reply(context.manager.exec_task(task), timeout);
    if (!reply) {
        throw CommandFailed(
            fmt::format("expected a reply of {} within {} ms", task.name, timeout.count()));
    }
    const double latency = Milliseconds(reply->latency).count();
    context.console.report(
        fmt::format("reply after {:.3f} ms: {}", latency, one_line(reply->packet.text)), "reply",
        fmt::format(R"("client":{},"transac_id":{},"status":{},"latency_ms":{:.6f})",
                    reply->packet.client, reply->transaction,
                    reply->status ? std::to_string(*reply->status) : "null", latency));
}

/// Draws a bar on the console while a load goes on.
class Progress {
  public:
    Progress(Console& console, std::size_t total) : console_(console), total_(total) { show(0); }
    ~Progress() { console_.set_status(""); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(std::size_t done) {
        const auto now = std::chrono::steady_clock::now();
        if (now < next_) return;
        next_ = now + kProgressInterval;
        const std::size_t filled = done * kProgressWidth / total_;
        console_.set_status(
            fmt::format("[{:<{}}] {}/{}", std::string(filled, '#'), kProgressWidth, done, total_));
    }

  private:
    Console& console_;
    const std::size_t total_;
    std::chrono::steady_clock::time_point next_{};
};

void call_many(CommandContext& context, const Task& task, const LoadOptions& options) {
    Progress progress(context.console, options.count);
    const LoadResult result = run_load(context.manager, task, options,
                                       [&](std::size_t replies) { progress.show(replies); });
    context.console.line(result.summary());
    show_calls(context);
    if (result.latencies.count() == options.count) return;
    throw CommandFailed(fmt::format("expected {} replies within {} ms each, got {}", options.count,
                                    options.timeout.count(), result.latencies.count()));
}

}  // namespace

Action parse_call(Words& words) {
    LoadOptions options;
    take_options(words, kOptions, options);
    const Task task = take_task(words, options);
    take_options(words, kOptions, options);
    return [task, options](CommandContext& context) {
        if (options.count == 1) {
            call_once(context, task, options.timeout);
        } else {
            call_many(context, task, options);
        }
    };
}

}  // namespace manager
