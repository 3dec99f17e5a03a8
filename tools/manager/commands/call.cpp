// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <memory>

#include "manager/base/json.h"
#include "manager/commands/commands.h"

namespace manager {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kProgressInterval(100);
constexpr std::size_t kProgressWidth = 40;

// More tasks than this in flight only wait in the client's queue.
constexpr std::size_t kMaxInFlight = 100'000;

// Sessions that calls open by themselves have numbers from here on.
constexpr std::int64_t kFirstOwnSession = 1000;

struct CallOptions {
    std::size_t count = 1;
    /// How many tasks wait for their replies at a time.
    std::size_t in_flight = 1;
    milliseconds timeout{5000};
    std::optional<std::int64_t> session;
    /// The "status" that the reply has to have.
    std::optional<std::int64_t> status;
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

void take_call_options(Words& words, CallOptions& options) {
    take_options(words,
                 {{"--count", [&] { options.count = take_count(words, "--count", UINT32_MAX); }},
                  {"--in-flight",
                   [&] { options.in_flight = take_count(words, "--in-flight", kMaxInFlight); }},
                  {"--timeout", [&] { options.timeout = take_milliseconds(words, "--timeout"); }},
                  {"--session", [&] { options.session = take_session(words); }},
                  {"--status", [&] { options.status = take_status(words); }}});
}

/// Adds what is wrong with the text, or else returns the argument as a task has it.
std::string encode_text(const Json::Value& field, std::size_t id, const std::string& text,
                        Faults& faults) {
    const std::string source = is_text(field) ? json_text(text) : text;
    JsonError error;
    const auto value = parse_json(source, &error);
    if (!value) {
        faults.push_back(
            {fmt::format("{} has to be {}: {}", name_of(field), describe(field), error.what),
             error.offset});
    } else if (!is_strict_json('[' + source + ']')) {
        faults.push_back({name_of(field) + " has to be JSON that all readers take", 0});
    } else {
        check(field, *value, name_of(field), faults);
    }
    return faults.empty() ? encode(field, id, *value, source) : "";
}

/// The arguments of a declared function, as a person writes them: values, or NAME=VALUE, in any
/// order. Returns the array of them as a task has it.
std::string take_arguments(Words& words, const Json::Value& function, CallOptions& options) {
    const std::string line(words.line());
    const auto wrong = [&](const std::string& what, std::size_t position) {
        return WrongCall(
            fmt::format("{}{}\n    {}", what, excerpt(line, position), signature(function)));
    };
    const Json::Value& args = array_of(function, "args");
    // Empty while it is not given.
    std::vector<std::string> values(args.size());
    for (Json::ArrayIndex next = 0; !words.at_end(); take_call_options(words, options)) {
        if (words.at_option()) continue;
        const std::size_t begin = words.position();
        const std::string name = words.name().value_or("");
        const char first = words.peek();
        const bool is_quoted = first == '"' || first == '\'';
        const std::size_t position = words.position() + (is_quoted ? 1 : 0);
        if (name.empty() && next == args.size()) {
            throw wrong(fmt::format("{} takes {} arguments", name_of(function), next), position);
        }
        if (!name.empty()) {
            for (next = 0; next < args.size() && name_of(args[next]) != name;) ++next;
        }
        if (next == args.size()) {
            throw wrong(fmt::format("{} has no argument \"{}\"", name_of(function), name), begin);
        }
        const Json::Value& field = args[next];
        std::string& value = values[next];
        if (!value.empty()) throw wrong(name_of(field) + " is given twice", position);
        const char* const what = name.empty() ? "VALUE" : name.c_str();
        const bool is_json = first == '[' || first == '{';
        const std::string text = is_quoted ? words.delimited(what)
                                 : is_json ? words.json(what)
                                           : words.word(what);
        Faults faults;
        value = encode_text(field, next++, text, faults);
        if (!faults.empty()) throw wrong(faults.front().what, position + faults.front().offset);
    }
    for (Json::ArrayIndex i = 0; i < args.size(); ++i) {
        if (!values[i].empty() || is_optional(args[i]) || !has_value(args[i])) continue;
        throw wrong(fmt::format("{} is missing: {}", name_of(args[i]), describe(args[i])),
                    line.size());
    }
    values.erase(std::remove(values.begin(), values.end(), ""), values.end());
    return fmt::format("[{}]", fmt::join(values, ","));
}

/// Why tasks of the session do not reach the service; empty if they do.
std::string why_not_ready(Services& services, const Service& service, std::int64_t session) {
    static constexpr std::array kReasons{"is not started", "is not started", "is not started yet",
                                         "was refused", "was started, but is not ready"};
    const SessionState state = services.session(service, session);
    if (state == SessionState::Ready) return {};
    return fmt::format("session {} {} for {}", session,
                       kReasons.at(static_cast<std::size_t>(state)), service.name());
}

/// The session in which calls without one go: it is opened for the first of them.
std::int64_t own_session(CommandContext& context, const Service& service, milliseconds timeout) {
    for (const auto& [session, state] : service.sessions) {
        if (session >= kFirstOwnSession && state == SessionState::Ready) return session;
    }
    Services& services = context.traffic.services;
    const std::int64_t session = services.unused_session(kFirstOwnSession);
    const std::vector<Target> targets{{service.opcode, subsystems_of(service.definition)}};
    context.manager.start_session(session, targets);
    // The start may wait, unknown to all, until a slow service has room for it.
    const auto is_answered = [&] {
        const SessionState state = services.session(service, session);
        return state == SessionState::Gone || state >= SessionState::Refused;
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

/// Shows the reply, and throws CommandFailed if it has another status than it has to have.
void report(CommandContext& context, const Task& task, const Reply& reply,
            std::optional<std::int64_t> expected, bool is_typed) {
    const std::string& text = reply.packet.text;
    const Json::Value message = parse_json(text).value_or(Json::Value());
    const double latency = Milliseconds(reply.latency).count();
    const Json::Value& func = member(message, "func");
    const std::string status = reply.status ? std::to_string(*reply.status) : "";
    context.console.report(
        fmt::format("reply after {:.3f} ms: {}", latency,
                    is_typed && !func.isNull() ? readable(func, text) : one_line(text)),
        "reply",
        fmt::format(R"("client":{},"transac_id":{},"status":{},"latency_ms":{:.6f},)"
                    R"("function":{},"return":{},"func":{})",
                    reply.packet.client, reply.transaction, reply.status ? status : "null", latency,
                    json_text(task.name), strict_text(member(message, "return"), text),
                    strict_text(func, text)));
    if (!expected || reply.status == expected) return;
    const std::string error = one_line(text_of(member(func, "error")));
    throw CommandFailed(fmt::format("{} replied with status {}, not {}{}{}", task.name,
                                    reply.status ? status : "missing", *expected,
                                    error.empty() ? "" : ": ", error));
}

void call_once(CommandContext& context, const Task& task, const CallOptions& options,
               bool is_typed) {
    Services& services = context.traffic.services;
    const std::int64_t transaction = context.manager.exec_task(task);
    const auto reply = context.manager.await_reply(transaction, options.timeout);
    if (!reply) {
        const auto service = services.find(opcode_text(task.opcode));
        const std::string reason = service ? why_not_ready(services, *service, task.session) : "";
        throw CommandFailed(fmt::format("expected a reply of {} within {} ms{}{}", task.name,
                                        options.timeout.count(), reason.empty() ? "" : "; ",
                                        reason));
    }
    report(context, task, *reply, options.status, is_typed);
}

/// What a terminal shows of a load while it runs.
std::string progress(std::size_t done, std::size_t count, double seconds) {
    const double rate = static_cast<double>(done) / seconds;
    const double left = static_cast<double>(count - done) / std::max(rate, 1e-6);
    return fmt::format("[{:<{}}] {}/{}, {:.0f}/s{}",
                       std::string(done * kProgressWidth / count, '#'), kProgressWidth, done, count,
                       rate, done == 0 ? "" : fmt::format(", {:.0f} s left", left));
}

/// Each reply makes room for the next task. Once a task is not answered in time no more are sent.
void call_many(CommandContext& context, const Task& task, const CallOptions& options) {
    // The deadlines of the tasks that wait for their replies. Transactions are numbered upwards, so
    // the first is the one that was sent first.
    std::map<std::int64_t, Clock::time_point> in_flight;
    std::size_t to_send = options.count;
    std::size_t sent = 0;
    std::size_t failed = 0;
    Latencies latencies;
    const Clock::time_point begin = Clock::now();
    const auto seconds = [&] {
        return std::max(1e-6, std::chrono::duration<double>(Clock::now() - begin).count());
    };
    Clock::time_point next_shown = begin;
    // Whatever happens, no bar is left.
    const std::shared_ptr<void> bar(nullptr, [&](void*) { context.console.set_status(""); });
    while (true) {
        if (Clock::now() >= next_shown) {
            next_shown = Clock::now() + kProgressInterval;
            const auto done = static_cast<std::size_t>(latencies.count());
            context.console.set_status(progress(done, options.count, seconds()));
        }
        for (; sent < to_send && in_flight.size() < options.in_flight; ++sent) {
            in_flight.emplace(context.manager.exec_task(task), Clock::now() + options.timeout);
        }
        if (in_flight.empty()) break;
        // Rounded up: to wait for nothing until the deadline comes would take the processor.
        const auto left = std::chrono::ceil<milliseconds>(in_flight.begin()->second - Clock::now());
        const auto reply = context.manager.await_any_reply(std::max(left, milliseconds(0)));
        if (!reply) {
            to_send = sent;
            in_flight.erase(in_flight.begin());
        } else if (in_flight.erase(reply->transaction) != 0) {
            latencies.add(reply->latency);
            if (reply->status != 0) ++failed;
        }
    }
    const double duration = seconds();
    context.console.line(fmt::format(
        "{} of {} tasks answered in {:.3f} s ({:.0f}/s), {} with a status other than 0; latency "
        "p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms",
        latencies.count(), sent, duration, static_cast<double>(latencies.count()) / duration,
        failed, latencies.percentile(50).count(), latencies.percentile(99).count(),
        latencies.max().count()));
    show_calls(context);
    if (latencies.count() == options.count) return;
    throw CommandFailed(fmt::format("expected {} replies within {} ms each, got {}", options.count,
                                    options.timeout.count(), latencies.count()));
}

void call(CommandContext& context, const Task& task, const CallOptions& options, bool is_typed) {
    if (options.count == 1) return call_once(context, task, options, is_typed);
    call_many(context, task, options);
}

void call_raw(Words& words, CommandContext& context, CallOptions options) {
    const std::int64_t session = take_session(words);
    const Target target = take_target(words);
    if (target.subsystems.size() != 1) throw BadCommand("a call is for one SUBSYS");
    const std::string name = words.word("NAME");
    take_call_options(words, options);
    const char first = words.peek();
    if (first != '[' && first != '\0') throw BadCommand("ARGS-JSON must be a complete JSON array");
    const std::string args = first == '[' ? words.json("ARGS-JSON") : "[]";
    if (!parse_json(args)) throw BadCommand("ARGS-JSON is not JSON: " + args);
    take_call_options(words, options);
    words.end();
    call(context, {session, target.opcode, target.subsystems.front(), name, args}, options, false);
}

void call_declared(Words& words, CommandContext& context, CallOptions options) {
    const auto [service, function] = find_function(context, words.word("SERVICE.FUNCTION"));
    const std::string args = take_arguments(words, function, options);
    if (!options.status) options.status = 0;
    if (!service.ready) throw CommandFailed(service.name() + " is not ready");
    const std::string reason =
        options.session ? why_not_ready(context.traffic.services, service, *options.session) : "";
    if (!reason.empty()) throw CommandFailed(reason);
    const auto subsystems = subsystems_of(service.definition);
    if (subsystems.empty()) throw CommandFailed(service.name() + " declares no subsystem");
    const std::int64_t session =
        options.session ? *options.session : own_session(context, service, options.timeout);
    call(context, {session, service.opcode, subsystems.front(), name_of(function), args}, options,
         true);
}

void call_either(Words& words, CommandContext& context) {
    CallOptions options;
    take_call_options(words, options);
    const std::string first = Words(words).word("SERVICE.FUNCTION or SESSION");
    const bool is_declared = first.find('.') != std::string::npos;
    (is_declared ? call_declared : call_raw)(words, context, options);
}

}  // namespace

const Commands kCallCommands{
    {"call",
     "[--session N] [--status N] [--timeout MS] [--count N] [--in-flight M] "
     "SERVICE.FUNCTION [NAME=]VALUE... | SESSION OPCODE:SUBSYS NAME [ARGS-JSON]",
     R"(Have a function executed and print its reply. SERVICE is a name or an opcode. The values are
checked against what the service declares before anything is sent; one of a struct is an
object, one of a vector an array, one with blanks goes between quotes, as describe
SERVICE.FUNCTION shows. Opens a session by itself, from number 1000 on, which later calls
use, too, unless --session says which. Fails if the status of the reply is not 0, or that of
--status, or if no reply comes within --timeout (5000 ms). With --count, executes the
function N times with M tasks in flight (1) and prints figures; a terminal then shows a bar
instead of the packets. The second form sends anything, even what is not declared, and takes
any status unless --status is given; ARGS-JSON is the array of arguments as the task has it,
as in [{"id":0,"type":"uint8","value":5}].)",
     call_either},
};

}  // namespace manager
