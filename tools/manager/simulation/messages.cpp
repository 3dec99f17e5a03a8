// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/messages.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdlib>

#include "manager/base/error.h"
#include "manager/base/json.h"

namespace manager {
namespace {

/// `opcode_form` is the format of an opcode, of which messages have two.
std::string session_message(const char* req_type, std::int64_t session,
                            std::optional<std::int64_t> transaction,
                            const std::vector<Target>& targets,
                            fmt::string_view opcode_form = "\"{:x}\"") {
    std::vector<std::string> groups;
    for (const auto& [opcode, subsystems] : targets) {
        std::vector<std::string> ids;
        for (const Subsystem id : subsystems) ids.push_back(fmt::format(R"({{"id":{}}})", id));
        groups.push_back(fmt::format(R"({{"id":{},"subsystems":[{}]}})",
                                     fmt::format(fmt::runtime(opcode_form), opcode),
                                     fmt::join(ids, ",")));
    }
    return fmt::format(R"({{"req_type":"{}","session_id":{},{}"opcodes":[{}]}})", req_type, session,
                       transaction ? fmt::format("\"transac_id\":{},", *transaction) : "",
                       fmt::join(groups, ","));
}

std::string change_message(const char* req_type, const std::string& name, const std::string& value,
                           const Affected& affected) {
    return fmt::format(R"({{"req_type":"{}","session_id":{},"state":{},"value":{},"package":{}}})",
                       req_type, affected.session, json_string(name), json_string(value),
                       json_string(affected.package));
}

/// The number behind the last `key` in the text.
std::optional<std::int64_t> number_behind(const std::string& text, std::string_view key) {
    const std::size_t found = text.rfind(key);
    if (found == std::string::npos) return std::nullopt;
    const char* const begin = text.c_str() + found + key.size();
    char* end = nullptr;
    const std::int64_t number = std::strtoll(begin, &end, 10);
    if (end == begin) return std::nullopt;
    return number;
}

std::optional<std::int64_t> read_integer(const Json::Value& value) {
    if (!value.isInt64()) return std::nullopt;
    return value.asInt64();
}

}  // namespace

std::string opcode_text(Opcode opcode) {
    return fmt::format("0x{:x}", opcode);
}

std::string start_session_message(std::int64_t session, std::int64_t transaction,
                                  const std::vector<Target>& targets) {
    return session_message("start_session", session, transaction, targets);
}

std::string ready_session_message(std::int64_t session, const std::vector<Target>& targets) {
    return session_message("ready_session", session, std::nullopt, targets);
}

std::string end_session_message(std::int64_t session, std::int64_t transaction,
                                const std::vector<Target>& targets) {
    return session_message("end_session", session, transaction, targets, "{}");
}

std::string exec_task_message(const Task& task, std::int64_t transaction) {
    const auto args = parse_json(task.args);
    if (!args || !args->isArray()) {
        throw ManagerError("the arguments of a task must be a JSON array, not " + task.args);
    }
    return fmt::format(R"({{"req_type":"exec_task","opcode":"{}","subsys_id":{},"session_id":{},)"
                       R"("transac_id":{},"func":{{"name":{},"num_of_args":{},"args":{}}}}})",
                       opcode_text(task.opcode), task.subsystem, task.session, transaction,
                       json_string(task.name), args->size(), task.args);
}

std::string permission_change_message(const std::string& permission, bool granted,
                                      const Affected& affected) {
    // "sesson_id" is how clients read it.
    return fmt::format(R"({{"req_type":"permission_change","sesson_id":"{}","permission":{},)"
                       R"("status":"{:d}","package":{}}})",
                       affected.session, json_string(permission), granted,
                       json_string(affected.package));
}

std::string state_change_message(const std::string& name, const std::string& value,
                                 const Affected& affected) {
    return change_message("state_change", name, value, affected);
}

std::string setting_change_message(const std::string& name, const std::string& value,
                                   const Affected& affected) {
    return change_message("system_setting_change", name, value, affected);
}

std::optional<ReplyHead> read_reply(const Json::Value& message) {
    const auto transaction = read_integer(member(message, "transac_id"));
    if (member(message, "req_type") != "exec_task" || !transaction) return std::nullopt;
    return ReplyHead{*transaction, read_integer(member(message, "status"))};
}

Json::Value read_broken(const std::string& text, std::string& fault) {
    Json::Value message;
    const std::size_t definition = text.find(",\"api_def\":");
    const auto opcode = number_behind(text.substr(0, definition), "\"Opcode\":");
    const auto transaction = number_behind(text, "\"transac_id\":");
    if (text.rfind(R"({"req_type":"AUTH",)", 0) == 0) {
        if (definition == std::string::npos || !opcode) return message;
        const bool is_token =
            parse_json(text.substr(0, text.rfind(",\"Token\":")) + '}').has_value();
        fault = is_token ? "the token is no text of JSON" : "the definition is no JSON";
        message["req_type"] = "AUTH";
        message["Opcode"] = static_cast<Opcode>(*opcode);
    } else if (transaction && text.find(R"("req_type":"exec_task")") != std::string::npos) {
        message["req_type"] = "exec_task";
        message["transac_id"] = *transaction;
    }
    return message;
}

}  // namespace manager
