#include "manager/simulation/requests.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace manager {
namespace {

struct RequestType {
    const char* req_type;
    Step step;
    /// The member with the names that are asked for.
    const char* names;
};
constexpr std::array<RequestType, 6> kRequestTypes{{
    {"INIT", Step::Init, ""},
    {"AUTH", Step::Auth, ""},
    {"REDY", Step::Ready, ""},
    {"PERMISSION", Step::Permission, "Permissions"},
    {"INFO_QUERY", Step::Info, "QueryInfos"},
    {"INFO_MNTR", Step::Info, "QueryInfos"},
}};

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

/// An element that is no text counts as an empty name, so that each element gets its result.
std::vector<std::string> read_names(const Json::Value& value) {
    std::vector<std::string> names;
    if (!value.isArray()) return names;
    for (const Json::Value& name : value) names.push_back(name.isString() ? name.asString() : "");
    return names;
}

}  // namespace

std::optional<Request> read_request(const Json::Value& message) {
    const auto type = std::find_if(kRequestTypes.begin(), kRequestTypes.end(),
                                   [&](const auto& t) { return has_type(message, t.req_type); });
    if (type == kRequestTypes.end()) return std::nullopt;
    return Request{type->step,
                   type->req_type,
                   read_opcode(member(message, "Opcode")),
                   read_integer(member(message, "QueryId")),
                   read_names(member(message, type->names)),
                   {}};
}

std::optional<ReplyHead> read_reply(const Json::Value& message) {
    if (!has_type(message, "exec_task")) return std::nullopt;
    const auto transaction = read_integer(member(message, "transac_id"));
    if (!transaction) return std::nullopt;
    return ReplyHead{*transaction, read_integer(member(message, "status"))};
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

std::optional<Request> read_broken_auth(const std::string& text) {
    const std::size_t definition = text.find(",\"api_def\":");
    const std::size_t token = text.rfind(",\"Token\":");
    if (text.rfind(R"({"req_type":"AUTH",)", 0) != 0 || definition == std::string::npos) return {};
    const auto opcode = number_behind(text.substr(0, definition), "\"Opcode\":");
    if (!opcode) return std::nullopt;
    const bool is_token = parse_json(text.substr(0, token) + '}').has_value();
    return Request{Step::Auth,
                   "AUTH",
                   static_cast<Opcode>(*opcode),
                   {},
                   {},
                   is_token ? "the token is no text of JSON" : "the definition is no JSON"};
}

std::optional<ReplyHead> read_broken_reply(const std::string& text) {
    const bool is_reply = text.find(R"("req_type":"exec_task")") != std::string::npos;
    const auto transaction = number_behind(text, "\"transac_id\":");
    if (!is_reply || !transaction) return std::nullopt;
    return ReplyHead{*transaction, std::nullopt};
}

std::string init_answer(std::int64_t service_id) {
    return fmt::format(R"({{"req_type":"INIT","service_id":{}}})", service_id);
}

std::string acknowledgement(const Request& request, int result) {
    const std::string reason =
        request.fault.empty() ? "" : ",\"reason\":" + json_text(request.fault);
    return fmt::format(R"({{"req_type":"{}","opcode":"{}","result":{}{}}})", request.req_type,
                       request.opcode.value(), result, reason);
}

std::string permission_answer(const Request& request, int status,
                              const std::vector<std::string>& results) {
    return fmt::format(R"({{"req_type":"{}","QueryId":{},"status":{},"PermRes":{}}})",
                       request.req_type, request.query.value(), status, json_strings(results));
}

std::string info_answer(const Request& request, const std::vector<std::string>& results) {
    return fmt::format(R"({{"req_type":"{}","QueryId":{},"QueryInfosRes":{}}})", request.req_type,
                       request.query.value(), json_strings(results));
}

}  // namespace manager
