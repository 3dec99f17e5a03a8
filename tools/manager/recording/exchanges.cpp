// SPDX-License-Identifier: Apache-2.0
#include "manager/recording/exchanges.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <utility>

#include "manager/base/json.h"

namespace manager {
namespace {

/// How packets of a type are read: the direction of a request or notice, and the members that hold
/// the rest. What has no answer has no id; no packet has a member without name.
struct Form {
    std::string_view type;
    Kind direction;
    const char* id;
    const char* answered_id;
    const char* subject;
    const char* outcome;
};
constexpr std::array<Form, 13> kForms{{
    {"INIT", Kind::FromClient, "", "", "", "service_id"},
    {"AUTH", Kind::FromClient, "Opcode", "opcode", "Opcode", "result"},
    {"REDY", Kind::FromClient, "Opcode", "opcode", "Opcode", "result"},
    {"PERMISSION", Kind::FromClient, "QueryId", "QueryId", "Permissions", "PermRes"},
    {"INFO_QUERY", Kind::FromClient, "QueryId", "QueryId", "QueryInfos", "QueryInfosRes"},
    {"INFO_MNTR", Kind::FromClient, "QueryId", "QueryId", "QueryInfos", "QueryInfosRes"},
    {"start_session", Kind::ToClient, "session_id", "session_id", "session_id", "Result"},
    {"end_session", Kind::ToClient, "session_id", "session_id", "session_id", "Result"},
    {"exec_task", Kind::ToClient, "transac_id", "transac_id", "name", "status"},
    {"ready_session", Kind::ToClient, nullptr, nullptr, "session_id", ""},
    {"permission_change", Kind::ToClient, nullptr, nullptr, "permission", "status"},
    {"state_change", Kind::ToClient, nullptr, nullptr, "state", "value"},
    {"system_setting_change", Kind::ToClient, nullptr, nullptr, "state", "value"},
}};
constexpr const char* kTask = "exec_task";
constexpr std::string_view kPlainReply = R"({"req_type":"", "Result":")";
constexpr std::int64_t kPlainTransaction = 0xffff'ffff;
constexpr const char* kPlainId = "plain";

/// A text as it is, anything else as it stands in the packet.
std::string shown(const Json::Value& value, const std::string& packet) {
    if (value.isString()) return value.asString();
    return value.isNull() ? "" : json_source(value, packet);
}

bool is_failure(const PicturedEvent& answer) {
    if (answer.type == kTask) return answer.outcome != "0";
    return answer.outcome == "Failed" || answer.outcome.substr(0, 1) == "-";
}

/// What requests and replies of tasks have in common; a plain reply has only the transaction.
std::string task_id(const Json::Value& message, const PicturedEvent& task) {
    const Json::Value& transaction = member(message, "transac_id");
    const bool plain =
        transaction.isInt64() && (transaction.asInt64() & kPlainTransaction) == kPlainTransaction;
    return plain ? kPlainId : shown(transaction, task.text) + ' ' + task.session;
}

/// Reads the packet, and returns what a request and its answer have in common.
std::string read_packet(PicturedEvent& packet) {
    const std::string& text = packet.text;
    if (text.compare(0, kPlainReply.size(), kPlainReply) == 0) {
        packet.type = kTask;
        packet.role = Role::Answer;
        return packet.type + kPlainId;
    }
    const auto message = parse_json(text);
    if (!message) return {};
    const auto read = [&](const char* name) { return shown(member(*message, name), text); };
    packet.type = read("req_type");
    const auto* const form = std::find_if(kForms.begin(), kForms.end(),
                                          [&](const Form& f) { return f.type == packet.type; });
    if (form == kForms.end()) return {};

    const bool asked = packet.kind == form->direction;
    if (form->id != nullptr) packet.role = asked ? Role::Request : Role::Answer;
    packet.session = read("session_id") + read("Session_Id");
    packet.subject = read(form->subject);
    if (packet.role != Role::Request) packet.outcome = read(form->outcome);
    packet.failed = packet.role == Role::Answer && is_failure(packet);
    packet.arguments = read("opcodes");
    if (packet.role == Role::Other) return {};
    if (packet.type != kTask) return packet.type + read(asked ? form->id : form->answered_id);

    if (asked) {
        const Json::Value& function = member(*message, "func");
        packet.subject = shown(member(function, "name"), text);
        packet.arguments = shown(member(function, "args"), text);
    }
    return packet.type + task_id(*message, packet);
}

/// The requests without answer, the oldest first, by what they share with it.
using Waiting = std::map<std::string, std::deque<PicturedEvent*>>;

void give_up(Waiting& waiting, std::chrono::nanoseconds time) {
    for (const auto& [id, requests] : waiting) {
        for (PicturedEvent* const request : requests) request->end = time;
    }
    waiting.clear();
}

void pair(PicturedEvent& request, PicturedEvent& answer) {
    request.partner = &answer;
    request.end = answer.begin;
    answer.partner = &request;
    answer.subject = request.subject;
}

}  // namespace

std::vector<PicturedEvent> pair_up(std::vector<RecordedEvent> recorded) {
    std::map<int, Waiting> clients;
    std::vector<PicturedEvent> events;
    // They point at each other.
    events.reserve(recorded.size());
    for (RecordedEvent& next : recorded) {
        const auto earliest = events.empty() ? std::chrono::nanoseconds(0) : events.back().begin;
        PicturedEvent& event = events.emplace_back(PicturedEvent{std::move(next)});
        event.begin = std::max<std::chrono::nanoseconds>(event.time - events[0].time, earliest);
        Waiting& waiting = clients[event.client];
        if (!is_packet(event)) {
            give_up(waiting, event.begin);
            continue;
        }
        const auto requests = waiting.try_emplace(read_packet(event)).first;
        if (event.role == Role::Request) requests->second.push_back(&event);
        if (event.role == Role::Answer && !requests->second.empty()) {
            pair(*requests->second.front(), event);
            requests->second.pop_front();
        }
        if (requests->second.empty()) waiting.erase(requests);
    }
    for (auto& [client, waiting] : clients) give_up(waiting, events.back().begin);
    return events;
}

std::string title(const PicturedEvent& event) {
    static constexpr std::array kChanges{"connected", "disconnected",
                                         "disconnected by the Manager"};
    if (!is_packet(event)) return kChanges.at(static_cast<std::size_t>(event.kind));
    std::string text = event.type.empty() ? event.text : event.type;
    if (!event.subject.empty()) text += ' ' + event.subject;
    if (!event.outcome.empty()) text += (event.type == kTask ? ": status " : ": ") + event.outcome;
    return text.substr(0, 100);
}

}  // namespace manager
