// SPDX-License-Identifier: Apache-2.0
#include "manager/services/services.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

constexpr char kTask[] = "exec_task";
constexpr std::size_t kMaxQuestions = 131'072;

std::int64_t number_of(const Json::Value& message, const char* key) {
    const Json::Value& value = member(message, key);
    return value.isInt64() ? value.asInt64() : -1;
}

std::string type_of(const Json::Value& message) {
    return text_of(member(message, "req_type"));
}

/// The opcodes of a message that names several.
std::set<Opcode> opcodes_of(const Json::Value& message) {
    std::set<Opcode> opcodes;
    for (const Json::Value& target : array_of(message, "opcodes")) {
        const Json::Value& id = member(target, "id");
        if (id.isUInt()) opcodes.insert(id.asUInt());
        if (const auto opcode = hexadecimal(text_of(id))) opcodes.insert(*opcode);
    }
    return opcodes;
}

}  // namespace

std::string Service::name() const {
    const std::string name = name_of(definition);
    return name.empty() ? opcode_text(opcode) : name;
}

const Json::Value& Service::function(const std::string& name) const {
    return find_named(array_of(definition, "functions"), name);
}

std::vector<std::string> Services::add(const Event& event,
                                       const std::optional<Json::Value>& message) {
    // Of what comes from a client, and of what goes to one.
    static const std::map<std::string, std::array<Handler Services::*, 2>> kHandlers{
        {"INIT", {&Services::forget, &Services::acknowledge}},
        {"AUTH", {&Services::ask_auth, &Services::acknowledge}},
        {"REDY", {&Services::ask_ready, &Services::acknowledge}},
        {"start_session", {&Services::answer, &Services::ask}},
        {"ready_session", {nullptr, &Services::ready_session}},
        {"end_session", {&Services::answer, &Services::ask}},
        {"exec_task", {&Services::answer, &Services::ask}},
        {"PERMISSION", {&Services::query, nullptr}},
        {"INFO_QUERY", {&Services::query, nullptr}},
        {"INFO_MNTR", {&Services::query, nullptr}},
        {"DINT", {&Services::forget, nullptr}}};
    const std::lock_guard lock(mutex_);
    faults_.clear();
    if (event.kind == Kind::Left || event.kind == Kind::Closed) forget(event, {});
    const bool incoming = event.kind == Kind::FromClient;
    const std::string type = message ? type_of(*message) : "";
    const auto handlers = kHandlers.find(type);
    Handler Services::*const handle =
        handlers == kHandlers.end() ? nullptr : handlers->second[incoming ? 0 : 1];
    if (handle != nullptr) {
        (this->*handle)(event, *message);
    } else if (incoming && !message) {
        check_text(event);
    } else if (incoming) {
        complain(fmt::format("there is no \"req_type\" \"{}\"", type));
    }
    return std::move(faults_);
}

/// For what is no JSON. What begins otherwise is an EXIT or a marker.
void Services::check_text(const Packet& packet) {
    constexpr char kPlainReply[] = R"({"req_type":"", "Result":)";
    const std::string& text = packet.text;
    if (text.substr(0, 1) != "{" || text.rfind(kPlainReply, 0) == 0) return;
    JsonError error;
    parse_json(text, &error);
    complain(fmt::format("no JSON, at byte {}: {}{}", error.offset, error.what,
                         excerpt(text, error.offset)));
    const std::size_t key = text.rfind("\"transac_id\":");
    if (key == std::string::npos) return;
    const char* const number = text.c_str() + text.find(':', key) + 1;
    clients_[packet.client].asked.erase({kTask, std::strtoll(number, nullptr, 10)});
}

// ------------------------------------------------------------------------------------------------
// Introduction

void Services::forget(const Packet& packet, const Json::Value&) {
    clients_.erase(packet.client);
    services_.erase(std::remove_if(services_.begin(), services_.end(),
                                   [&](const Service& s) { return s.client == packet.client; }),
                    services_.end());
}

void Services::check_service_id(int client, const Json::Value& message) {
    const std::int64_t id = number_of(message, "Service_Id");
    const auto& own = clients_[client].id;
    if (!own) return complain("it has no service id yet");
    if (id != *own) complain(fmt::format("Service_Id is {}, not {}", id, *own));
}

void Services::ask_auth(const Packet& packet, const Json::Value& message) {
    check_service_id(packet.client, message);
    const Json::Value& opcode = member(message, "Opcode");
    if (!opcode.isUInt()) return complain("AUTH has no \"Opcode\"");
    const Json::Value& api_def = member(message, "api_def");
    const Service service{opcode.asUInt(), packet.client, member(api_def, "Vexon")};
    const std::string prefix = "AUTH of " + opcode_text(service.opcode) + ": ";
    Faults faults;
    check_definition(api_def, faults);
    for (const Fault& fault : faults) complain(prefix + fault.what);
    const auto stated = hexadecimal(text_of(member(service.definition, "opcode")));
    if (stated && *stated != service.opcode) {
        complain(prefix + "its definition is of " + opcode_text(*stated));
    }
    if (text_of(member(message, "Token")).empty()) complain(prefix + "the token is empty");
    for (const Service& other : services_) {
        if (!other.registered) continue;
        if (other.opcode == service.opcode) {
            complain(fmt::format("{}client {} has it already", prefix, other.client));
        } else if (other.name() == service.name()) {
            complain(fmt::format("{}{} is named \"{}\" as well", prefix, opcode_text(other.opcode),
                                 service.name()));
        }
    }
    // What the Manager has accepted holds until it accepts this one.
    Service* const earlier = find(packet.client, service.opcode);
    if (earlier == nullptr) {
        services_.push_back(service);
    } else {
        earlier->definition = service.definition;
    }
}

void Services::ask_ready(const Packet& packet, const Json::Value& message) {
    check_service_id(packet.client, message);
    const Json::Value& opcode = member(message, "Opcode");
    const Service* const service = opcode.isUInt() ? find(packet.client, opcode.asUInt()) : nullptr;
    if (service == nullptr || !service->registered) complain("REDY of what is not registered");
}

/// For the answers to an introduction.
void Services::acknowledge(const Packet& packet, const Json::Value& message) {
    const std::string type = type_of(message);
    if (type == "INIT") clients_[packet.client].id = number_of(message, "service_id");
    const auto opcode = std::strtoul(text_of(member(message, "opcode")).c_str(), nullptr, 10);
    Service* const service = find(packet.client, static_cast<Opcode>(opcode));
    if (service == nullptr || number_of(message, "result") < 0) return;
    (type == "AUTH" ? service->registered : service->ready) = true;
}

// ------------------------------------------------------------------------------------------------
// What the Manager asks

Services::Key Services::key_of(const Json::Value& message) {
    const std::string type = type_of(message);
    return {type, number_of(message, type == kTask ? "transac_id" : "session_id")};
}

void Services::ask(const Packet& packet, const Json::Value& message) {
    const auto text = [](const Json::Value& value) {
        return value.isString() ? value.asString() : "?";
    };
    const Function function{text(member(member(message, "func"), "name")),
                            text(member(message, "opcode"))};
    const auto opcodes = opcodes_of(message);
    const auto [type, number] = key_of(message);
    auto& asked = clients_[packet.client].asked;
    asked.insert({{type, number}, {packet.time, function, opcodes}});
    if (asked.size() > kMaxQuestions) asked.erase(asked.begin());
    if (type == kTask) ++figures_of(function).calls;
    if (type != "start_session") return;
    last_session_ = std::max(last_session_, number);
    for (const Opcode opcode : opcodes) {
        Service* const service = find(packet.client, opcode);
        if (service != nullptr) service->sessions[number] = SessionState::Starting;
    }
}

void Services::answer(const Packet& packet, const Json::Value& message) {
    const Key key = key_of(message);
    auto& asked = clients_[packet.client].asked;
    const auto found = asked.find(key);
    if (found == asked.end()) {
        return complain(key.first == kTask ? "reply to no task, or a second one"
                                           : key.first + " that the Manager has not asked for");
    }
    const Question question = found->second;
    asked.erase(found);
    if (key.first == kTask) return check_reply(packet, question, message);
    const bool success = member(message, "Result") == "Success";
    const auto accepted = opcodes_of(message);
    for (Service& service : services_) {
        const bool is_meant =
            question.opcodes.empty() || question.opcodes.count(service.opcode) != 0;
        if (service.client != packet.client || !is_meant) continue;
        if (key.first == "start_session") {
            service.sessions[key.second] = success && accepted.count(service.opcode) != 0
                                               ? SessionState::Started
                                               : SessionState::Refused;
        } else if (success) {
            service.sessions.erase(key.second);
        }
    }
}

void Services::ready_session(const Packet& packet, const Json::Value& message) {
    for (const Opcode opcode : opcodes_of(message)) {
        Service* const service = find(packet.client, opcode);
        if (service == nullptr) continue;
        const auto session = service->sessions.find(number_of(message, "session_id"));
        const bool is_started =
            session != service->sessions.end() && session->second == SessionState::Started;
        if (is_started) session->second = SessionState::Ready;
    }
}

void Services::check_reply(const Packet& packet, const Question& task, const Json::Value& message) {
    const auto& [function, opcode_called] = task.function;
    const bool failed = member(message, "status") != 0;
    Figures& figures = figures_of(task.function);
    figures.latencies.add(packet.time - task.sent);
    if (failed) ++figures.failed;
    const auto tell = [&, prefix = "reply of " + function + ": "](const std::string& what) {
        complain(prefix + what);
    };
    const auto opcode = hexadecimal(opcode_called);
    const std::string stated = text_of(member(message, "opcode"));
    if (hexadecimal(stated) != opcode) {
        tell(fmt::format("the opcode is \"{}\", not {}", stated, opcode_called));
    }
    const std::string name = name_of(message);
    if (name != function) tell(fmt::format("the name is \"{}\"", name));
    for (const char* const number : {"return", "status"}) {
        if (!member(message, number).isInt()) tell(fmt::format("{} is no number", number));
    }
    const Json::Value& results = member(message, "func");
    if (!results.isObject()) return tell("\"func\" is no object");
    if (failed) {
        const bool tells_error = results.empty() || member(results, "error").isString();
        if (!tells_error) tell("it has failed, but \"func\" holds no text \"error\"");
        return;
    }
    const Service* const service = opcode ? find(packet.client, *opcode) : nullptr;
    if (service == nullptr) return;
    const Json::Value& declared = service->function(function);
    if (member(declared, "results").isNull()) return;
    Faults faults;
    check_members(array_of(declared, "results"), results, "func", faults);
    for (const Fault& fault : faults) tell(fault.what);
}

void Services::query(const Packet& packet, const Json::Value& message) {
    const std::int64_t session = number_of(message, "Session_Id");
    const bool takes_part = std::any_of(services_.begin(), services_.end(), [&](const auto& s) {
        return s.client == packet.client && s.sessions.count(session) != 0;
    });
    if (!takes_part) {
        complain(fmt::format("query of session {}, in which it takes no part", session));
    }
    if (number_of(message, "QueryId") < 1) complain("query without a \"QueryId\"");
    for (const char* const key : {"Permissions", "QueryInfos"}) {
        for (const Json::Value& name : array_of(message, key)) {
            if (!text_of(name).empty()) continue;
            complain(fmt::format("query with an empty name in \"{}\"", key));
            break;
        }
    }
}

// ------------------------------------------------------------------------------------------------
// What is known

Service* Services::find(int client, Opcode opcode) {
    const auto service = std::find_if(services_.begin(), services_.end(), [&](const Service& s) {
        return s.client == client && s.opcode == opcode;
    });
    return service == services_.end() ? nullptr : &*service;
}

Figures& Services::figures_of(const Function& function) {
    has_new_figures_ = true;
    return figures_[function];
}

std::map<Opcode, Service> Services::list() const {
    const std::lock_guard lock(mutex_);
    std::map<Opcode, Service> registered;
    for (const Service& service : services_) {
        if (service.registered) registered.insert_or_assign(service.opcode, service);
    }
    return registered;
}

std::optional<Service> Services::find(const std::string& name) const {
    std::optional<Service> found;
    for (const auto& [opcode, service] : list()) {
        if (name_of(service.definition) == name) return service;
        if (hexadecimal(name) == opcode) found = service;
    }
    return found;
}

SessionState Services::session(const Service& service, std::int64_t session) {
    const std::lock_guard lock(mutex_);
    const Service* const known = find(service.client, service.opcode);
    if (known == nullptr) return SessionState::Gone;
    const auto state = known->sessions.find(session);
    return state == known->sessions.end() ? SessionState::Unknown : state->second;
}

std::int64_t Services::unused_session(std::int64_t first) const {
    const std::lock_guard lock(mutex_);
    return std::max(first, last_session_ + 1);
}

std::map<Services::Function, Figures> Services::take_figures() {
    const std::lock_guard lock(mutex_);
    has_new_figures_ = false;
    return figures_;
}

bool Services::has_new_figures() const {
    const std::lock_guard lock(mutex_);
    return has_new_figures_;
}

}  // namespace manager
