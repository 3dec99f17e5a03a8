#include "manager/services/services.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

// Older tasks without a reply are forgotten.
constexpr std::size_t kMaxTasks = 131'072;

std::string text_of(const Json::Value& value) {
    return value.isString() ? value.asString() : std::string();
}

std::int64_t number_of(const Json::Value& value) {
    return value.isInt64() ? value.asInt64() : -1;
}

/// The opcodes of a message that names several.
std::vector<Opcode> opcodes_of(const Json::Value& message) {
    std::vector<Opcode> opcodes;
    const Json::Value& targets = member(message, "opcodes");
    if (!targets.isArray()) return opcodes;
    for (const Json::Value& target : targets) {
        const Json::Value& id = member(target, "id");
        if (id.isUInt()) opcodes.push_back(id.asUInt());
        if (const auto opcode = hexadecimal(text_of(id))) opcodes.push_back(*opcode);
    }
    return opcodes;
}

}  // namespace

std::string Service::name() const {
    return definition.name.empty() ? opcode_text(opcode) : definition.name;
}

Services::Handler Services::handler(const std::string& type, Kind kind) {
    struct Entry {
        const char* type;
        Handler from_client;
        Handler to_client;
    };
    static constexpr std::array<Entry, 10> kEntries{{
        {"INIT", &Services::ask_id, &Services::give_id},
        {"AUTH", &Services::ask_auth, &Services::accept_auth},
        {"REDY", &Services::ask_ready, &Services::accept_ready},
        {"start_session", &Services::start, &Services::ask_start},
        {"ready_session", nullptr, &Services::ask_ready_session},
        {"end_session", &Services::end, &Services::ask_end},
        {"exec_task", &Services::reply, &Services::call},
        {"PERMISSION", &Services::query, nullptr},
        {"INFO_QUERY", &Services::query, nullptr},
        {"INFO_MNTR", &Services::query, nullptr},
    }};
    if (type == "DINT" && kind == Kind::FromClient) return &Services::leave;
    const auto* const entry = std::find_if(kEntries.begin(), kEntries.end(),
                                           [&](const Entry& e) { return type == e.type; });
    if (entry == kEntries.end()) return nullptr;
    return kind == Kind::FromClient ? entry->from_client : entry->to_client;
}

std::vector<std::string> Services::add(const Event& event,
                                       const std::optional<Json::Value>& message) {
    const std::lock_guard lock(mutex_);
    faults_.clear();
    if (event.kind == Kind::Left || event.kind == Kind::Closed) forget(event.client);
    const bool incoming = event.kind == Kind::FromClient;
    if (!message) {
        if (incoming) check_text(event.client, event.text);
        return std::move(faults_);
    }
    const std::string type = text_of(member(*message, "req_type"));
    if (const Handler handle = handler(type, event.kind)) {
        (this->*handle)(event.client, *message);
    } else if (incoming) {
        complain(fmt::format("there is no \"req_type\" \"{}\"", type));
    }
    return std::move(faults_);
}

/// For what is no JSON. What begins otherwise is an EXIT or a marker.
void Services::check_text(int client, const std::string& text) {
    constexpr char kPlainReply[] = R"({"req_type":"", "Result":)";
    if (text.substr(0, 1) != "{" || text.rfind(kPlainReply, 0) == 0) return;
    JsonError error;
    parse_json(text, &error);
    complain(fmt::format("no JSON, at byte {}: {}{}", error.offset, error.what,
                         excerpt(text, error.offset)));
    const std::size_t key = text.rfind("\"transac_id\":");
    if (key != std::string::npos) {
        tasks_.erase({client, std::strtoll(text.c_str() + text.find(':', key) + 1, nullptr, 10)});
    }
}

Service* Services::find(int client, Opcode opcode) {
    const auto service = std::find_if(services_.rbegin(), services_.rend(), [&](const Service& s) {
        return s.client == client && s.opcode == opcode;
    });
    return service == services_.rend() ? nullptr : &*service;
}

// ------------------------------------------------------------------------------------------------
// Introduction

void Services::ask_id(int client, const Json::Value&) {
    forget(client);
}

void Services::give_id(int client, const Json::Value& message) {
    ids_[client] = number_of(member(message, "service_id"));
}

void Services::check_service_id(int client, const Json::Value& message) {
    const std::int64_t id = number_of(member(message, "Service_Id"));
    const auto own = ids_.find(client);
    if (own == ids_.end()) return complain("it has no service id yet");
    if (id != own->second) complain(fmt::format("Service_Id is {}, not {}", id, own->second));
}

void Services::ask_auth(int client, const Json::Value& message) {
    check_service_id(client, message);
    const Json::Value& opcode = member(message, "Opcode");
    if (!opcode.isUInt()) return complain("AUTH has no \"Opcode\"");
    Service service{opcode.asUInt(), client, {}};
    Faults faults;
    service.definition = read_definition(member(message, "api_def"), faults);
    const std::string prefix = "AUTH of " + opcode_text(service.opcode);
    for (const Fault& fault : faults) complain(prefix + ": " + fault.what);
    const auto& stated = service.definition.opcode;
    if (stated && *stated != service.opcode) {
        complain(fmt::format("{}: its definition is of {}", prefix, opcode_text(*stated)));
    }
    if (text_of(member(message, "Token")).empty()) complain(prefix + ": the token is empty");
    for (const Service& other : services_) {
        if (!other.registered) continue;
        const bool is_same = other.opcode == service.opcode;
        if (is_same) complain(fmt::format("{}: client {} has it already", prefix, other.client));
        if (!is_same && other.name() == service.name()) {
            complain(fmt::format("{}: {} is named \"{}\" as well", prefix,
                                 opcode_text(other.opcode), service.name()));
        }
    }
    Service* const earlier = find(client, service.opcode);
    if (earlier == nullptr) {
        services_.push_back(std::move(service));
    } else {
        // What the Manager has accepted holds until it accepts this one.
        earlier->definition = std::move(service.definition);
    }
}

void Services::ask_ready(int client, const Json::Value& message) {
    check_service_id(client, message);
    const Json::Value& opcode = member(message, "Opcode");
    const Service* const service = opcode.isUInt() ? find(client, opcode.asUInt()) : nullptr;
    if (service == nullptr || !service->registered) complain("REDY of what is not registered");
}

/// The service that a positive acknowledgement is for.
Service* Services::accepted(int client, const Json::Value& message) {
    const bool accepts = number_of(member(message, "result")) >= 0;
    const auto opcode = std::strtoul(text_of(member(message, "opcode")).c_str(), nullptr, 10);
    return accepts ? find(client, static_cast<Opcode>(opcode)) : nullptr;
}

void Services::accept_auth(int client, const Json::Value& message) {
    if (Service* const service = accepted(client, message)) service->registered = true;
}

void Services::accept_ready(int client, const Json::Value& message) {
    if (Service* const service = accepted(client, message)) service->ready = true;
}

void Services::leave(int client, const Json::Value&) {
    forget(client);
}

void Services::forget(int client) {
    const auto erase = [&](auto& map) {
        map.erase(map.lower_bound({client, INT64_MIN}), map.upper_bound({client, INT64_MAX}));
    };
    services_.erase(std::remove_if(services_.begin(), services_.end(),
                                   [&](const Service& s) { return s.client == client; }),
                    services_.end());
    ids_.erase(client);
    erase(sessions_);
    erase(endings_);
    erase(tasks_);
}

// ------------------------------------------------------------------------------------------------
// Sessions

void Services::ask_start(int client, const Json::Value& message) {
    const std::int64_t session = number_of(member(message, "session_id"));
    last_session_ = std::max(last_session_, session);
    for (const Opcode opcode : opcodes_of(message)) {
        sessions_[{client, session}][opcode] = SessionState::Starting;
    }
}

void Services::start(int client, const Json::Value& message) {
    const auto session = sessions_.find({client, number_of(member(message, "session_id"))});
    if (session == sessions_.end()) {
        return complain("start_session that the Manager has not asked for");
    }
    const auto accepted = opcodes_of(message);
    const bool success = text_of(member(message, "Result")) == "Success";
    for (auto& [opcode, state] : session->second) {
        if (state != SessionState::Starting) continue;
        const bool named = std::count(accepted.begin(), accepted.end(), opcode) != 0;
        state = success && named ? SessionState::Started : SessionState::Refused;
    }
}

void Services::ask_ready_session(int client, const Json::Value& message) {
    const auto session = sessions_.find({client, number_of(member(message, "session_id"))});
    if (session == sessions_.end()) return;
    for (const Opcode opcode : opcodes_of(message)) {
        const auto state = session->second.find(opcode);
        const bool is_started =
            state != session->second.end() && state->second == SessionState::Started;
        if (is_started) state->second = SessionState::Ready;
    }
}

void Services::ask_end(int client, const Json::Value& message) {
    endings_[{client, number_of(member(message, "session_id"))}] = opcodes_of(message);
}

void Services::end(int client, const Json::Value& message) {
    const Key key{client, number_of(member(message, "session_id"))};
    const auto ending = endings_.find(key);
    if (ending == endings_.end()) {
        return complain("end_session that the Manager has not asked for");
    }
    if (text_of(member(message, "Result")) == "Success") {
        for (const Opcode opcode : ending->second) sessions_[key].erase(opcode);
        if (ending->second.empty() || sessions_[key].empty()) sessions_.erase(key);
    }
    endings_.erase(ending);
}

// ------------------------------------------------------------------------------------------------
// Tasks and queries

void Services::call(int client, const Json::Value& message) {
    const auto opcode = hexadecimal(text_of(member(message, "opcode")));
    const Json::Value& transaction = member(message, "transac_id");
    if (!opcode || !transaction.isInt64()) return;
    tasks_[{client, transaction.asInt64()}] = {*opcode,
                                               text_of(member(member(message, "func"), "name"))};
    if (tasks_.size() > kMaxTasks) tasks_.erase(tasks_.begin());
}

void Services::reply(int client, const Json::Value& message) {
    const auto task = tasks_.find({client, number_of(member(message, "transac_id"))});
    if (task == tasks_.end()) return complain("reply to no task, or a second one");
    check_reply(task->second, find(client, task->second.opcode), message);
    tasks_.erase(task);
}

void Services::check_reply(const Task& task, const Service* service, const Json::Value& message) {
    const auto tell = [&](const std::string& what) {
        complain(fmt::format("reply of {}: {}", task.function, what));
    };
    const std::string opcode = text_of(member(message, "opcode"));
    if (hexadecimal(opcode) != task.opcode) {
        tell(fmt::format("the opcode is \"{}\", not {}", opcode, opcode_text(task.opcode)));
    }
    const std::string name = text_of(member(message, "name"));
    if (name != task.function) tell(fmt::format("the name is \"{}\"", name));
    for (const char* const number : {"return", "status"}) {
        if (!member(message, number).isInt()) tell(fmt::format("{} is no number", number));
    }
    const Json::Value& results = member(message, "func");
    if (!results.isObject()) return tell("\"func\" is no object");
    if (member(message, "status") != 0) {
        const bool tells_error = results.empty() || member(results, "error").isString();
        if (!tells_error) tell("it has failed, but \"func\" holds no text \"error\"");
        return;
    }
    const Function* const function =
        service == nullptr ? nullptr : service->definition.find(task.function);
    if (function == nullptr || !function->results) return;
    Faults faults;
    check_members(*function->results, results, "func", faults);
    for (const Fault& fault : faults) tell(fault.what);
}

void Services::query(int client, const Json::Value& message) {
    const std::int64_t session = number_of(member(message, "Session_Id"));
    if (sessions_.count({client, session}) == 0) {
        complain(fmt::format("query of session {}, in which it takes no part", session));
    }
    if (number_of(member(message, "QueryId")) < 1) complain("query without a \"QueryId\"");
    for (const char* const key : {"Permissions", "QueryInfos"}) {
        const Json::Value& names = member(message, key);
        const bool is_named = std::all_of(names.begin(), names.end(),
                                          [](const auto& name) { return !text_of(name).empty(); });
        if (!is_named) complain(fmt::format("query with an empty name in \"{}\"", key));
    }
}

// ------------------------------------------------------------------------------------------------
// What is known

std::vector<Service> Services::list() const {
    const std::lock_guard lock(mutex_);
    std::map<Opcode, Service> registered;
    for (const Service& service : services_) {
        if (service.registered) registered.insert_or_assign(service.opcode, service);
    }
    std::vector<Service> result;
    for (auto& [opcode, service] : registered) result.push_back(std::move(service));
    return result;
}

std::optional<Service> Services::find(const std::string& name) const {
    const auto services = list();
    const auto opcode = hexadecimal(name);
    const auto named = std::find_if(services.begin(), services.end(),
                                    [&](const Service& s) { return s.definition.name == name; });
    const auto found = named != services.end()
                           ? named
                           : std::find_if(services.begin(), services.end(),
                                          [&](const Service& s) { return s.opcode == opcode; });
    if (found == services.end()) return std::nullopt;
    return *found;
}

SessionState Services::session(const Service& service, std::int64_t session) const {
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find({service.client, session});
    if (found == sessions_.end()) return SessionState::Unknown;
    const auto state = found->second.find(service.opcode);
    return state == found->second.end() ? SessionState::Unknown : state->second;
}

std::vector<std::int64_t> Services::sessions(const Service& service) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::int64_t> result;
    for (const auto& [key, states] : sessions_) {
        const auto state = states.find(service.opcode);
        const bool takes_part = state != states.end() && state->second >= SessionState::Started;
        if (key.first == service.client && takes_part) result.push_back(key.second);
    }
    return result;
}

std::int64_t Services::unused_session(std::int64_t first) const {
    const std::lock_guard lock(mutex_);
    return std::max(first, last_session_ + 1);
}

bool Services::is_pending(const Service& service, std::int64_t transaction) const {
    const std::lock_guard lock(mutex_);
    return tasks_.count({service.client, transaction}) != 0;
}

}  // namespace manager
