#include <fmt/format.h>
#include <fmt/ranges.h>

#include "manager/base/json.h"
#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {
namespace {

std::string join(const std::vector<std::string>& names) {
    return fmt::format("{}", fmt::join(names, ", "));
}

std::string list(const std::vector<std::int64_t>& sessions, const char* separator) {
    return fmt::format("{}", fmt::join(sessions, separator));
}

void show_services(CommandContext& context) {
    const Services& known = context.traffic.services;
    std::vector<Row> rows{{"opcode", "name", "subsystems", "client", "state", "sessions"}};
    std::vector<std::string> objects;
    for (const Service& service : known.list()) {
        const auto subsystems = fmt::format("{}", fmt::join(service.definition.subsystems, ","));
        const auto sessions = known.sessions(service);
        rows.push_back({opcode_text(service.opcode), service.definition.name, subsystems,
                        std::to_string(service.client), service.ready ? "ready" : "not ready",
                        list(sessions, ", ")});
        objects.push_back(fmt::format(
            R"({{"opcode":"{}","name":{},"subsystems":[{}],"client":{},"ready":{},"sessions":[{}]}})",
            opcode_text(service.opcode), json_text(service.definition.name), subsystems,
            service.client, service.ready, list(sessions, ",")));
    }
    context.console.report(
        objects.empty() ? "no service is registered" : aligned(rows, rows.front().size()),
        "services", fmt::format("\"services\":[{}]", fmt::join(objects, ",")));
}

std::string json_of(const Fields& fields) {
    std::vector<std::string> objects;
    for (const Field& field : fields) {
        objects.push_back(fmt::format(R"({{"name":{},"type":{},"optional":{}}})",
                                      json_text(field.name), json_text(describe(field)),
                                      field.optional));
    }
    return fmt::format("[{}]", fmt::join(objects, ","));
}

std::string json_of(const Function& function) {
    return fmt::format(R"({{"name":{},"signature":{},"args":{},"results":{}}})",
                       json_text(function.name), json_text(signature(function)),
                       json_of(function.args),
                       function.results ? json_of(*function.results) : "null");
}

/// The call to begin with.
std::string example_call(const Service& service, const Function& function) {
    std::string line = fmt::format("call {}.{}", service.name(), function.name);
    for (const Field& field : function.args) {
        const bool has_blank_or_quote = !field.members.empty();
        const char* const quote = has_blank_or_quote ? "'" : "";
        line += fmt::format(" {}={}{}{}", field.name, quote, example(field), quote);
    }
    return line;
}

void describe_service(CommandContext& context, const Service& service, const Function* only) {
    std::string text = fmt::format("{} ({})", service.name(), opcode_text(service.opcode));
    std::vector<std::string> objects;
    for (const Function& function : service.definition.functions) {
        if (only != nullptr && &function != only) continue;
        text += "\n  " + signature(function);
        objects.push_back(json_of(function));
    }
    if (only != nullptr) text += "\n  as in: " + example_call(service, *only);
    context.console.report(
        text, "description",
        fmt::format(R"("opcode":"{}","name":{},"functions":[{}])", opcode_text(service.opcode),
                    json_text(service.name()), fmt::join(objects, ",")));
}

void describe_named(CommandContext& context, const std::string& name) {
    for (const Service& service : context.traffic.services.list()) {
        const bool is_named = service.name() == name || hexadecimal(name) == service.opcode;
        if (name.empty() || is_named) describe_service(context, service, nullptr);
        if (is_named) return;
    }
    if (name.empty()) return;
    const auto [service, function] = find_function(context, name);
    describe_service(context, service, service.definition.find(function));
}

}  // namespace

std::pair<Service, std::string> find_function(const CommandContext& context,
                                              const std::string& name) {
    const Services& services = context.traffic.services;
    const std::size_t dot = std::min(name.rfind('.'), name.size());
    std::optional<Service> service;
    // What a client has been sent may not have been noted yet: only the Manager's lock tells.
    context.manager.wait_until(
        [&] {
            service = services.find(name.substr(0, dot));
            return true;
        },
        std::chrono::milliseconds(0));
    std::vector<std::string> known;
    if (!service) {
        for (const Service& other : services.list()) known.push_back(other.name());
        throw CommandFailed(fmt::format("there is no service \"{}\"; there is {}",
                                        name.substr(0, dot),
                                        known.empty() ? "none yet" : join(known)));
    }
    const std::string function = name.substr(std::min(dot + 1, name.size()));
    if (service->definition.find(function) != nullptr) return {*service, function};
    for (const Function& other : service->definition.functions) known.push_back(other.name);
    throw BadCommand(fmt::format("{} declares no function \"{}\"; it declares {}", service->name(),
                                 function, known.empty() ? "none" : join(known)));
}

const Commands kServiceCommands{
    {"services", "",
     "List the services that are registered: the opcode, the name, the subsystems, the client,\n"
     "whether it is ready, and the sessions that it takes part in.",
     [](Words&) -> Action { return show_services; }},
    {"describe", "[SERVICE[.FUNCTION]]",
     "Show the functions that a service, given by its name or opcode, or every service declares,\n"
     "with the types of arguments and results; of one function an example of a call, too.",
     [](Words& words) -> Action {
         const std::string name = words.at_end() ? "" : take_text(words, "SERVICE.FUNCTION");
         return [name](CommandContext& context) { describe_named(context, name); };
     }},
};

}  // namespace manager
