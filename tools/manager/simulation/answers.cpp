// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/answers.h"

#include <fmt/format.h>

#include <algorithm>

#include "manager/base/json.h"

namespace manager {

struct Answers::RequestType {
    const char* req_type;
    Step step;
    /// The members with the number that the answer repeats, and with the names that are asked for.
    const char* id = "";
    const char* names = nullptr;
};

void Answers::set_refused(Step step, std::optional<Opcode> opcode, bool refused) {
    const std::lock_guard lock(mutex_);
    Rule& changed = rule(step);
    if (!opcode) {
        changed.refuse_all = refused;
        changed.exceptions.clear();
    } else if (refused == changed.refuse_all) {
        changed.exceptions.erase(*opcode);
    } else {
        changed.exceptions.insert(*opcode);
    }
}

void Answers::set_result(Step step, const std::string& name, const std::string& text) {
    const std::lock_guard lock(mutex_);
    results_[{step, name}] = text;
}

Answers::Answer Answers::answer_to(const Json::Value& message, const std::string& fault) {
    static constexpr std::array<RequestType, 6> kTypes{{
        {"INIT", Step::Init},
        {"AUTH", Step::Auth, "Opcode"},
        {"REDY", Step::Ready, "Opcode"},
        {"PERMISSION", Step::Permission, "QueryId", "Permissions"},
        {"INFO_QUERY", Step::Info, "QueryId", "QueryInfos"},
        {"INFO_MNTR", Step::Info, "QueryId", "QueryInfos"},
    }};
    const Json::Value& req_type = member(message, "req_type");
    const auto* const type = std::find_if(kTypes.begin(), kTypes.end(),
                                          [&](const auto& t) { return req_type == t.req_type; });
    if (type == kTypes.end()) return {};
    const Json::Value& id = member(message, type->id);
    const bool is_answerable =
        type->step == Step::Init || (type->names ? id.isInt64() : id.isUInt());
    if (!is_answerable) return {};

    const std::lock_guard lock(mutex_);
    const Rule& found = rule(type->step);
    const bool is_exception = id.isUInt() && found.exceptions.count(id.asUInt()) != 0;
    const bool refused = !fault.empty() || found.refuse_all != is_exception;
    Answer answer;
    if (type->step == Step::Auth && !refused) answer.authenticated = id.asUInt();
    if (!answering_ || found.drop) return answer;
    answer.text = text(*type, message, refused, fault);
    answer.times = found.twice ? 2 : 1;
    answer.delay = found.delay;
    return answer;
}

std::string Answers::text(const RequestType& type, const Json::Value& message, bool refused,
                          const std::string& fault) {
    const int result = refused ? -1 : 0;
    if (type.step == Step::Init) {
        return fmt::format(R"({{"req_type":"INIT","service_id":{}}})",
                           refused ? result : ++services_);
    }
    const std::int64_t id = member(message, type.id).asInt64();
    if (type.names == nullptr) {
        return fmt::format(R"({{"req_type":"{}","opcode":"{}","result":{}{}}})", type.req_type, id,
                           result, fault.empty() ? "" : ",\"reason\":" + json_text(fault));
    }
    const std::string named = results(member(message, type.names), type.step, refused);
    if (type.step == Step::Info) {
        return fmt::format(R"({{"req_type":"{}","QueryId":{},"QueryInfosRes":{}}})", type.req_type,
                           id, named);
    }
    return fmt::format(R"({{"req_type":"{}","QueryId":{},"status":{},"PermRes":{}}})",
                       type.req_type, id, result, named);
}

/// The result for each of the names, as a JSON array.
std::string Answers::results(const Json::Value& names, Step step, bool refused) const {
    Json::Value results(Json::arrayValue);
    const bool is_permission = step == Step::Permission;
    if (!names.isArray() || (is_permission && refused)) return json_string(results);
    for (const Json::Value& name : names) {
        // What is no text counts as an empty name, so that each element gets its result.
        const auto known = results_.find({step, name.isString() ? name.asString() : ""});
        if (refused) {
            results.append("ERROR:refused");
        } else if (known != results_.end()) {
            results.append(known->second);
        } else {
            results.append(is_permission ? "0" : "ERROR:unknown");
        }
    }
    return json_string(results);
}

}  // namespace manager
