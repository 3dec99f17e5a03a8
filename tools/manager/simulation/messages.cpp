#include "manager/simulation/messages.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "manager/base/error.h"
#include "manager/base/json.h"

namespace manager {
namespace {

// The two ways in which messages hold an opcode.
std::string hexadecimal_text(Opcode opcode) {
    return fmt::format(R"("{:x}")", opcode);
}
std::string plain_number(Opcode opcode) {
    return std::to_string(opcode);
}

std::string targets_text(const std::vector<Target>& targets, std::string (*opcode_id)(Opcode)) {
    std::vector<std::string> groups;
    for (const Target& target : targets) {
        std::vector<std::string> subsystems;
        for (const Subsystem id : target.subsystems) {
            subsystems.push_back(fmt::format(R"({{"id":{}}})", id));
        }
        groups.push_back(fmt::format(R"({{"id":{},"subsystems":[{}]}})", opcode_id(target.opcode),
                                     fmt::join(subsystems, ",")));
    }
    return fmt::format("[{}]", fmt::join(groups, ","));
}

std::string change_message(const char* req_type, const std::string& name, const std::string& value,
                           const Affected& affected) {
    return fmt::format(R"({{"req_type":"{}","session_id":{},"state":{},"value":{},"package":{}}})",
                       req_type, affected.session, json_string(name), json_string(value),
                       json_string(affected.package));
}

}  // namespace

std::string opcode_text(Opcode opcode) {
    return fmt::format("0x{:x}", opcode);
}

std::string start_session_message(std::int64_t session, std::int64_t transaction,
                                  const std::vector<Target>& targets) {
    return fmt::format(
        R"({{"req_type":"start_session","session_id":{},"transac_id":{},"opcodes":{}}})", session,
        transaction, targets_text(targets, hexadecimal_text));
}

std::string ready_session_message(std::int64_t session, const std::vector<Target>& targets) {
    return fmt::format(R"({{"req_type":"ready_session","session_id":{},"opcodes":{}}})", session,
                       targets_text(targets, hexadecimal_text));
}

std::string end_session_message(std::int64_t session, std::int64_t transaction,
                                const std::vector<Target>& targets) {
    return fmt::format(
        R"({{"req_type":"end_session","session_id":{},"transac_id":{},"opcodes":{}}})", session,
        transaction, targets_text(targets, plain_number));
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

}  // namespace manager
