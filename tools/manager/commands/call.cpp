#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <limits>
#include <utility>

#include "manager/base/json.h"
#include "manager/calls/load.h"
#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"
#include "manager/commands/typed_arguments.h"

namespace manager {
namespace {

constexpr std::chrono::milliseconds kProgressInterval(100);
constexpr std::size_t kProgressWidth = 40;
// More tasks than this in flight only wait in the client's queue.
constexpr std::size_t kMaxInFlight = 100'000;

// Sessions that calls open by themselves have numbers from here on.
constexpr std::int64_t kFirstOwnSession = 1000;

struct CallOptions : LoadOptions {
    std::optional<std::int64_t> session = {};
    /// The "status" that the reply has to have.
    std::optional<std::int64_t> status = {};
};

std::size_t take_count(Words& words, const char* what, std::size_t max) {
    const auto count = static_cast<std::size_t>(parse_decimal(words.word(what), what, max));
    if (count == 0) throw BadCommand(fmt::format("{} must be at least 1", what));
    return count;
}

std::int64_t take_status(Words& words) {
    const std::string word = words.word("--status");
    const bool is_negative = word[0] == '-';
    const auto number = static_cast<std::int64_t>(
        parse_decimal(word.substr(is_negative ? 1 : 0), "--status", std::int64_t{1} << 31));
    return is_negative ? -number : number;
}

constexpr std::array<Option<CallOptions>, 5> kOptions{{
    {"--count",
     [](Words& words, CallOptions& options) {
         options.count = take_count(words, "--count", std::numeric_limits<std::uint32_t>::max());
     }},
    {"--in-flight",
     [](Words& words, CallOptions& options) {
         options.in_flight = take_count(words, "--in-flight", kMaxInFlight);
     }},
    {"--timeout",
     [](Words& words, CallOptions& options) {
         options.timeout = take_milliseconds(words, "--timeout");
     }},
    {"--session",
     [](Words& words, CallOptions& options) { options.session = take_session(words); }},
    {"--status", [](Words& words, CallOptions& options) { options.status = take_status(words); }},
}};

// ------------------------------------------------------------------------------------------------
// What is called

/// A call of a function that a service declares.
struct TypedCall {
    std::string line;
    /// SERVICE.FUNCTION.
    std::string function;
    std::vector<GivenArgument> arguments;
};

/// Why tasks of the session do not reach the service; empty if they do.
std::string why_not_ready(const CommandContext& context, const Service& service,
                          std::int64_t session) {
    static const std::map<SessionState, const char*> kReasons{
        {SessionState::Unknown, "is not started"},
        {SessionState::Starting, "is not started yet"},
        {SessionState::Refused, "was refused"},
        {SessionState::Started, "was started, but is not ready"}};
    const auto reason = kReasons.find(context.traffic.services.session(service, session));
    if (reason == kReasons.end()) return {};
    return fmt::format("session {} {} for {}", session, reason->second, service.name());
}

/// The session in which calls without one go: it is opened for the first of them.
std::int64_t own_session(CommandContext& context, const Service& service,
                         std::chrono::milliseconds timeout) {
    const Services& services = context.traffic.services;
    for (const std::int64_t session : services.sessions(service)) {
        const bool is_ready = services.session(service, session) == SessionState::Ready;
        if (session >= kFirstOwnSession && is_ready) return session;
    }
    const std::int64_t session = services.unused_session(kFirstOwnSession);
    const std::vector<Target> targets{{service.opcode, service.definition.subsystems}};
    context.manager.start_session(session, targets);
    const auto is_answered = [&] {
        return services.session(service, session) != SessionState::Starting;
    };
    if (!context.manager.wait_until(is_answered, timeout)) {
        throw CommandFailed(fmt::format("{} has not answered the start of session {} within {} ms",
                                        service.name(), session, timeout.count()));
    }
    if (services.session(service, session) != SessionState::Started) {
        throw CommandFailed(fmt::format("{} refused session {}", service.name(), session));
    }
    context.manager.ready_session(session, targets);
    return session;
}

Task resolve(CommandContext& context, const TypedCall& call, const CallOptions& options) {
    const auto [service, name] = find_function(context, call.function);
    std::string args = encode_arguments(*service.definition.find(name), call.arguments, call.line);
    if (!service.ready) throw CommandFailed(service.name() + " is not ready");
    if (options.session) {
        const std::string reason = why_not_ready(context, service, *options.session);
        if (!reason.empty()) throw CommandFailed(reason);
    }
    if (service.definition.subsystems.empty()) {
        throw CommandFailed(service.name() + " declares no subsystem");
    }
    const std::int64_t session =
        options.session ? *options.session : own_session(context, service, options.timeout);
    return {session, service.opcode, service.definition.subsystems.front(), name, std::move(args)};
}

// ------------------------------------------------------------------------------------------------
// Calling

/// The value as every reader of JSON takes it.
std::string strict_text(const Json::Value& value, const std::string& source) {
    const std::string text = value.isNull() ? "null" : json_source(value, source);
    return is_strict_json('[' + text + ']') ? text : "null";
}

/// The value on lines of their own where it is long.
std::string readable(const Json::Value& value, const std::string& source, std::size_t indent = 4) {
    constexpr std::size_t kShort = 72;
    const std::string text = json_source(value, source);
    const bool is_list = value.isObject() || value.isArray();
    if (text.size() <= kShort || !is_list || value.empty()) return one_line(text);
    std::vector<std::string> items;
    for (auto item = value.begin(); item != value.end(); ++item) {
        const std::string key = value.isObject() ? json_text(item.name()) + ": " : "";
        items.push_back(std::string(indent + 2, ' ') + key + readable(*item, source, indent + 2));
    }
    return fmt::format("{}\n{}\n{}{}", text.front(), fmt::join(items, ",\n"),
                       std::string(indent, ' '), text.back());
}

void report(CommandContext& context, const Task& task, const Reply& reply, bool is_typed) {
    const std::string& text = reply.packet.text;
    const Json::Value message = parse_json(text).value_or(Json::Value());
    const double latency = Milliseconds(reply.latency).count();
    const Json::Value& func = member(message, "func");
    const bool shows_results = is_typed && !func.isNull();
    context.console.report(
        fmt::format("reply after {:.3f} ms: {}", latency,
                    shows_results ? readable(func, text) : one_line(text)),
        "reply",
        fmt::format(R"("client":{},"transac_id":{},"status":{},"latency_ms":{:.6f},)"
                    R"("function":{},"return":{},"func":{})",
                    reply.packet.client, reply.transaction,
                    reply.status ? std::to_string(*reply.status) : "null", latency,
                    json_text(task.name), strict_text(member(message, "return"), text),
                    strict_text(func, text)));
}

void require_status(const Task& task, const Reply& reply, std::int64_t expected) {
    if (reply.status == expected) return;
    const Json::Value message = parse_json(reply.packet.text).value_or(Json::Value());
    const Json::Value& error = member(member(message, "func"), "error");
    throw CommandFailed(fmt::format("{} replied with status {}, not {}{}", task.name,
                                    reply.status ? std::to_string(*reply.status) : "missing",
                                    expected,
                                    error.isString() ? ": " + one_line(error.asString()) : ""));
}

void call_once(CommandContext& context, const Task& task, const CallOptions& options,
               bool is_typed) {
    const Services& services = context.traffic.services;
    const auto service = services.find(opcode_text(task.opcode));
    const std::int64_t transaction = context.manager.exec_task(task);
    // A client that leaves does not reply any more.
    if (service) {
        context.manager.wait_until([&] { return !services.is_pending(*service, transaction); },
                                   options.timeout);
    }
    const auto reply = context.manager.await_reply(
        transaction, service ? std::chrono::milliseconds(0) : options.timeout);
    if (!reply) {
        const std::string reason = service ? why_not_ready(context, *service, task.session) : "";
        throw CommandFailed(fmt::format("expected a reply of {} within {} ms{}{}", task.name,
                                        options.timeout.count(), reason.empty() ? "" : "; ",
                                        reason));
    }
    report(context, task, *reply, is_typed);
    if (options.status || is_typed) require_status(task, *reply, options.status.value_or(0));
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
        const double seconds = std::chrono::duration<double>(now - begin_).count();
        const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
        const std::string left =
            done == 0 ? ""
                      : fmt::format(", {:.0f} s left", static_cast<double>(total_ - done) / rate);
        console_.set_status(fmt::format("[{:<{}}] {}/{}, {:.0f}/s{}", std::string(filled, '#'),
                                        kProgressWidth, done, total_, rate, left));
    }

  private:
    Console& console_;
    const std::size_t total_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point next_{};
};

void call_many(CommandContext& context, const Task& task, const CallOptions& options) {
    Progress progress(context.console, options.count);
    const LoadResult result = run_load(context.manager, task, options,
                                       [&](std::size_t replies) { progress.show(replies); });
    context.console.line(result.summary());
    show_calls(context);
    if (result.latencies.count() == options.count) return;
    throw CommandFailed(fmt::format("expected {} replies within {} ms each, got {}", options.count,
                                    options.timeout.count(), result.latencies.count()));
}

void call(CommandContext& context, const Task& task, const CallOptions& options, bool is_typed) {
    if (options.count == 1) return call_once(context, task, options, is_typed);
    call_many(context, task, options);
}

// ------------------------------------------------------------------------------------------------
// The two forms

std::string take_arguments(Words& words) {
    if (words.peek() == '\0') return "[]";
    if (words.peek() != '[') throw BadCommand("ARGS-JSON must be a complete JSON array");
    std::string text = words.json("ARGS-JSON");
    if (!parse_json(text)) throw BadCommand("ARGS-JSON is not JSON: " + text);
    return text;
}

Action parse_raw(Words& words, CallOptions options) {
    const std::int64_t session = take_session(words);
    const Target target = take_target(words);
    if (target.subsystems.size() != 1) throw BadCommand("a call is for one SUBSYS");
    std::string name = words.word("NAME");
    take_options(words, kOptions, options);
    const Task task{session, target.opcode, target.subsystems.front(), std::move(name),
                    take_arguments(words)};
    take_options(words, kOptions, options);
    return [task, options](CommandContext& context) { call(context, task, options, false); };
}

Action parse_typed(Words& words, CallOptions options) {
    TypedCall typed{std::string(words.line()), words.word("SERVICE.FUNCTION"), {}};
    while (!words.at_end()) {
        if (words.at_option()) {
            take_options(words, kOptions, options);
        } else {
            typed.arguments.push_back(take_given_argument(words));
        }
    }
    return [typed, options](CommandContext& context) {
        call(context, resolve(context, typed, options), options, true);
    };
}

}  // namespace

const Commands kCallCommands{
    {"call",
     "[--session N] [--status N] [--timeout MS] [--count N] [--in-flight M] "
     "SERVICE.FUNCTION [NAME=]VALUE... | SESSION OPCODE:SUBSYS NAME [ARGS-JSON]",
     "Have a function executed and print its reply. SERVICE is a name or an opcode. The values "
     "are\n"
     "checked against what the service declares before anything is sent; one of a struct is an\n"
     "object, one of a vector an array, one with blanks goes between quotes, as describe\n"
     "SERVICE.FUNCTION shows. Opens a session by itself, from number 1000 on, which later calls\n"
     "use, too, unless --session says which. Fails if the status of the reply is not 0, or that "
     "of\n"
     "--status, or if no reply comes within --timeout (5000 ms). With --count, executes the\n"
     "function N times with M tasks in flight (1) and prints figures; a terminal then shows a bar\n"
     "instead of the packets. The second form sends anything, even what is not declared, and "
     "takes\n"
     "any status unless --status is given; ARGS-JSON is the array of arguments as the task has "
     "it,\n"
     "as in [{\"id\":0,\"type\":\"uint8\",\"value\":5}].",
     [](Words& words) {
         CallOptions options;
         take_options(words, kOptions, options);
         const std::string first = Words(words).word("SERVICE.FUNCTION or SESSION");
         const bool is_typed = first.find('.') != std::string::npos;
         return is_typed ? parse_typed(words, options) : parse_raw(words, options);
     }},
};

}  // namespace manager
