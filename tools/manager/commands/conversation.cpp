// SPDX-License-Identifier: Apache-2.0
// What the conversation tells of services and their calls, and what becomes of it.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <climits>

#include "manager/base/json.h"
#include "manager/commands/commands.h"
#include "manager/recording/replay.h"

namespace manager {
namespace {

void show_services(CommandContext& context) {
    std::vector<Row> rows{{"opcode", "name", "subsystems", "client", "state", "sessions"}};
    std::vector<std::string> objects;
    for (const auto& [number, service] : context.traffic.services.list()) {
        const std::string opcode = opcode_text(number);
        const std::string name = name_of(service.definition);
        const auto subsystems = subsystems_of(service.definition);
        std::vector<std::int64_t> sessions;
        for (const auto& [session, state] : service.sessions) {
            if (state >= SessionState::Started) sessions.push_back(session);
        }
        rows.push_back({opcode, name, fmt::format("{}", fmt::join(subsystems, ",")),
                        std::to_string(service.client), service.ready ? "ready" : "not ready",
                        fmt::format("{}", fmt::join(sessions, ", "))});
        objects.push_back(
            fmt::format(R"({{"opcode":"{}","name":{},"subsystems":[{}],"client":{},"ready":{},)"
                        R"("sessions":[{}]}})",
                        opcode, json_text(name), fmt::join(subsystems, ","), service.client,
                        service.ready, fmt::join(sessions, ",")));
    }
    context.console.report(
        objects.empty() ? "no service is registered" : aligned(rows, rows.front().size()),
        "services", fmt::format("\"services\":[{}]", fmt::join(objects, ",")));
}

std::string json_of(const Json::Value& fields) {
    std::vector<std::string> objects;
    for (const Json::Value& field : fields) {
        objects.push_back(fmt::format(R"({{"name":{},"type":{},"optional":{}}})",
                                      json_text(name_of(field)), json_text(describe(field)),
                                      is_optional(field)));
    }
    return fmt::format("[{}]", fmt::join(objects, ","));
}

/// The call to begin with.
std::string example_call(const Service& service, const Json::Value& function) {
    std::string line = fmt::format("call {}.{}", service.name(), name_of(function));
    for (const Json::Value& field : array_of(function, "args")) {
        const std::string value = example(field);
        const bool has_members = value.find(':') != std::string::npos;
        const char* const quote = has_members ? "'" : "";
        line += fmt::format(" {}={}{}{}", name_of(field), quote, value, quote);
    }
    return line;
}

/// Of one function, if there is one to be named, or of all.
void describe(CommandContext& context, const Service& service, const std::string& only = "") {
    std::string text = fmt::format("{} ({})", service.name(), opcode_text(service.opcode));
    std::vector<std::string> objects;
    for (const Json::Value& function : array_of(service.definition, "functions")) {
        const std::string name = name_of(function);
        if (!only.empty() && name != only) continue;
        text += "\n  " + signature(function);
        if (!only.empty()) text += "\n  as in: " + example_call(service, function);
        const bool has_results = !member(function, "results").isNull();
        objects.push_back(
            fmt::format(R"({{"name":{},"signature":{},"args":{},"results":{}}})", json_text(name),
                        json_text(signature(function)), json_of(array_of(function, "args")),
                        has_results ? json_of(array_of(function, "results")) : "null"));
    }
    context.console.report(
        text, "description",
        fmt::format(R"("opcode":"{}","name":{},"functions":[{}])", opcode_text(service.opcode),
                    json_text(service.name()), fmt::join(objects, ",")));
}

void describe_named(CommandContext& context, const std::string& name) {
    for (const auto& [opcode, service] : context.traffic.services.list()) {
        const bool is_named = service.name() == name || hexadecimal(name) == opcode;
        if (name.empty() || is_named) describe(context, service);
        if (is_named) return;
    }
    if (name.empty()) return;
    const auto [service, function] = find_function(context, name);
    describe(context, service, name_of(function));
}

Traffic::Filter take_filter(Words& words) {
    Traffic::Filter filter;
    constexpr char kExpected[] = "type=, client= or service=";
    const auto text = [&] { return take_text(words, kExpected); };
    const std::map<std::string, std::function<void()>> known{
        {"type", [&] { filter.type = text(); }},
        {"client",
         [&] { filter.client = static_cast<int>(parse_decimal(text(), "client", INT_MAX)); }},
        {"service", [&] { filter.service = text(); }}};
    while (!words.at_end()) {
        const std::string wrong = excerpt(std::string(words.line()), words.position());
        const auto key = known.find(words.name().value_or(""));
        if (key == known.end()) throw BadCommand(kExpected + (" expected" + wrong));
        key->second();
    }
    return filter;
}

void replay(Words& words, CommandContext& context) {
    ReplayOptions options;
    const std::map<std::string, std::function<void()>> known{
        {"--timeout", [&] { options.timeout = take_milliseconds(words, "--timeout"); }},
        {"--ignore", [&] { options.ignored.insert(take_text(words, "--ignore")); }}};
    take_options(words, known);
    const std::string file = take_text(words, "FILE");
    take_options(words, known);
    words.end();
    Replay(file, options, context).run();
}

void record(CommandContext& context, const std::string& file) {
    if (file.empty()) return context.traffic.recorder.stop();
    context.traffic.recorder.start(file);
}

void watch(CommandContext& context, const Traffic::Filter& filter) {
    context.traffic.watch(filter);
    while (context.interruption.signal() == 0) context.interruption.sleep(kMaxDuration);
    context.traffic.watch(std::nullopt);
}

}  // namespace

std::pair<Service, Json::Value> find_function(const CommandContext& context,
                                              const std::string& name) {
    const Services& services = context.traffic.services;
    const std::size_t dot = std::min(name.rfind('.'), name.size());
    std::optional<Service> service;
    // What a client has been sent may not have been noted yet: only the Manager's lock tells.
    const auto find = [&] { return (service = services.find(name.substr(0, dot))).has_value(); };
    context.manager.wait_until(find, std::chrono::milliseconds(0));
    std::vector<std::string> known;
    if (!service) {
        for (const auto& [opcode, other] : services.list()) known.push_back(other.name());
        if (known.empty()) known.emplace_back("none yet");
        throw CommandFailed(fmt::format("there is no service \"{}\"; there is {}",
                                        name.substr(0, dot), fmt::join(known, ", ")));
    }
    const std::string function = name.substr(std::min(dot + 1, name.size()));
    const Json::Value& declared = service->function(function);
    if (!declared.isNull()) return {*service, declared};
    for (const Json::Value& other : array_of(service->definition, "functions")) {
        known.push_back(name_of(other));
    }
    if (known.empty()) known.emplace_back("none");
    throw WrongCall(fmt::format("{} declares no function \"{}\"; it declares {}", service->name(),
                                function, fmt::join(known, ", ")));
}

const Commands kServiceCommands{
    {"services", "",
     "List the services that are registered: the opcode, the name, the subsystems, the client,\n"
     "whether it is ready, and the sessions that it takes part in.",
     taking(show_services)},
    {"describe", "[SERVICE[.FUNCTION]]",
     "Show the functions that a service, given by its name or opcode, or every service declares,\n"
     "with the types of arguments and results; of one function an example of a call, too.",
     taking(describe_named, named<take_optional_text>("SERVICE.FUNCTION"))},
};

void show_calls(CommandContext& context) {
    constexpr std::size_t kFirstNumber = 2;
    const Row heading{"function",    "opcode", "calls",  "answered", "failed",
                      "outstanding", "p50 ms", "p99 ms", "max ms"};
    std::vector<Row> rows{heading};
    std::vector<std::string> objects;
    for (const auto& [function, figures] : context.traffic.services.take_figures()) {
        const auto& [name, opcode] = function;
        const Latencies& latencies = figures.latencies;
        const auto milliseconds = [&](Milliseconds latency) {
            return latencies.count() == 0 ? "-" : fmt::format("{:.3f}", latency.count());
        };
        const Row row{one_line(name),
                      one_line(opcode),
                      std::to_string(figures.calls),
                      std::to_string(latencies.count()),
                      std::to_string(figures.failed),
                      std::to_string(figures.calls - latencies.count()),
                      milliseconds(latencies.percentile(50)),
                      milliseconds(latencies.percentile(99)),
                      milliseconds(latencies.max())};
        std::string object =
            fmt::format(R"("function":{},"opcode":{})", json_text(name), json_text(opcode));
        for (std::size_t i = kFirstNumber; i < row.size(); ++i) {
            std::string key = heading[i];
            std::replace(key.begin(), key.end(), ' ', '_');
            object += fmt::format(R"(,"{}":{})", key, row[i] == "-" ? "null" : row[i]);
        }
        rows.push_back(row);
        objects.push_back('{' + object + '}');
    }
    context.console.report(objects.empty() ? "no function was called" : aligned(rows, kFirstNumber),
                           "summary", fmt::format("\"functions\":[{}]", fmt::join(objects, ",")));
}

const Commands kTrafficCommands{
    {"record", "[FILE]",
     "Write the conversation to FILE from now on, in place of what is there, or, without FILE, no\n"
     "longer. The lines are those of --json.",
     taking(record, named<take_optional_text>("FILE"))},
    {"replay", "FILE [--timeout MS] [--ignore NAME]...",
     "Play the Manager's side of a recorded conversation. What it sent is sent in the same order,\n"
     "each packet once those that clients had sent before have come again; the Manager gives no\n"
     "answers of its own. Fails if a packet, a connection or its end does not come within\n"
     "--timeout (5000 ms), if a packet came that is not in FILE, or a task is answered otherwise.\n"
     "Packets of JSON are the same if all members are, apart from Service_Id, service_id, QueryId\n"
     "and the NAMEs, at any depth; other packets if the texts are. Replies to different tasks and\n"
     "other packets between two of the Manager's may come in any order. Clients that are\n"
     "connected already stand for those that were when the recording began.",
     replay},
    {"watch", "[type=TYPE] [client=N] [service=SERVICE]",
     "Show the packets that fit, and no others, until Ctrl-C: those of a \"req_type\", of a "
     "client, of\nthe client that serves a service.",
     taking(watch, take_filter)},
    {"summary", "",
     R"(Print for each function the number of calls so far, of replies, of those with a status other
than 0, of calls without a reply, and the latencies, from the call sent to the reply
received. Also printed at the end and after call --count.)",
     taking(show_calls)},
};

}  // namespace manager
