#include "manager/messages.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <json/reader.h>
#include <json/writer.h>

#include <array>
#include <memory>

#include "manager/error.h"

namespace manager {
namespace {

struct StepName {
    Step step;
    const char* req_type;
};
constexpr std::array<StepName, 3> kStepNames{
    {{Step::Init, "INIT"}, {Step::Auth, "AUTH"}, {Step::Ready, "REDY"}}};

/// Returns the member of an object, null if `value` is no object or has no such member.
const Json::Value& member(const Json::Value& value, const char* name) {
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

bool has_type(const Json::Value& message, const char* req_type) {
    const Json::Value& type = member(message, "req_type");
    return type.isString() && type.asString() == req_type;
}

std::optional<std::int64_t> read_integer(const Json::Value& value) {
    if (!value.isInt64()) return std::nullopt;
    return value.asInt64();
}

std::optional<Opcode> read_opcode(const Json::Value& value) {
    if (!value.isUInt()) return std::nullopt;
    return value.asUInt();
}

std::string targets_text(const std::vector<Target>& targets) {
    std::vector<std::string> groups;
    for (const Target& target : targets) {
        std::vector<std::string> subsystems;
        for (const Subsystem id : target.subsystems) {
            subsystems.push_back(fmt::format(R"({{"id":{}}})", id));
        }
        groups.push_back(fmt::format(R"({{"id":"{:x}","subsystems":[{}]}})", target.opcode,
                                     fmt::join(subsystems, ",")));
    }
    return fmt::format("[{}]", fmt::join(groups, ","));
}

}  // namespace

std::optional<Json::Value> parse_json(const std::string& text) try {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
    return value;
} catch (const Json::Exception&) {
    // Thrown for a text that nests too deeply.
    return std::nullopt;
}

std::optional<Request> read_request(const Json::Value& message) {
    for (const StepName& name : kStepNames) {
        if (!has_type(message, name.req_type)) continue;
        return Request{name.step, read_opcode(member(message, "Opcode"))};
    }
    return std::nullopt;
}

std::optional<ReplyHead> read_reply(const Json::Value& message) {
    if (!has_type(message, "exec_task")) return std::nullopt;
    const auto transaction = read_integer(member(message, "transac_id"));
    if (!transaction) return std::nullopt;
    return ReplyHead{*transaction, read_integer(member(message, "status"))};
}

std::string opcode_text(Opcode opcode) {
    return fmt::format("0x{:x}", opcode);
}

std::string init_answer(std::int64_t service_id) {
    return fmt::format(R"({{"req_type":"INIT","service_id":{}}})", service_id);
}

std::string step_answer(Step step, Opcode opcode, int result) {
    const char* req_type = kStepNames.at(static_cast<std::size_t>(step)).req_type;
    return fmt::format(R"({{"req_type":"{}","opcode":"{}","result":{}}})", req_type, opcode,
                       result);
}

std::string start_session_message(std::int64_t session, std::int64_t transaction,
                                  const std::vector<Target>& targets) {
    return fmt::format(
        R"({{"req_type":"start_session","session_id":{},"transac_id":{},"opcodes":{}}})", session,
        transaction, targets_text(targets));
}

std::string ready_session_message(std::int64_t session, const std::vector<Target>& targets) {
    return fmt::format(R"({{"req_type":"ready_session","session_id":{},"opcodes":{}}})", session,
                       targets_text(targets));
}

std::string exec_task_message(const Task& task, std::int64_t transaction) {
    const auto args = parse_json(task.args);
    if (!args || !args->isArray()) {
        throw ManagerError("the arguments of a task must be a JSON array, not " + task.args);
    }
    return fmt::format(R"({{"req_type":"exec_task","opcode":"{}","subsys_id":{},"session_id":{},)"
                       R"("transac_id":{},"func":{{"name":{},"num_of_args":{},"args":{}}}}})",
                       opcode_text(task.opcode), task.subsystem, task.session, transaction,
                       Json::valueToQuotedString(task.name.c_str()), args->size(), task.args);
}

}  // namespace manager
