// SPDX-License-Identifier: Apache-2.0
#include "client/queries/permission_query.h"

#include <string>

#include "client/link/send.h"
#include "client/queries/query.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

QueryTable<permRes_meta_data_t> permission_queries() NO_THREAD_SAFETY_ANALYSIS {
    return {gPermMutex, gPerm};
}

std::string permission_request(unsigned int session_id, const std::vector<std::string>& permissions,
                               int service_id, std::uint32_t query_id) {
    std::string text = "{\"req_type\":\"PERMISSION\",\"Session_Id\":";
    text += std::to_string(session_id);
    text += ",\"service_id\":";
    text += std::to_string(service_id);
    text += ",\"Permissions\":[";
    const char* separator = "";
    for (const std::string& permission : permissions) {
        log_line(kAlways, "permission: %s", permission.c_str());
        text += separator;
        text += '"' + permission + '"';
        separator = ",";
    }
    text += "],\"QueryId\":";
    text += std::to_string(query_id);
    text += "}";
    return text;
}

std::vector<bool> read_permissions(const Json::Value& message) {
    if (int_member(message, "status", 0) != 0) return {false};
    const Json::Value& elements = member(message, "PermRes");
    log_line(kAlways, "size of permResp array: %d", static_cast<int>(elements.size()));
    std::vector<bool> granted;
    for (const Json::Value& element : elements) {
        granted.push_back(std::stoi(as_text(element)) != 0);
        log_line(kAlways, "i = %d, permRes_meta_data response: %d",
                 static_cast<int>(granted.size() - 1), granted.back() ? 1 : 0);
    }
    return granted;
}

}  // namespace

std::vector<bool> vexa_permission_query(unsigned int session_id,
                                        std::vector<std::string> permissions) {
    set_query_outcome(VEXA_QUERY_NOT_SENT);
    const Life life = life_of_call();
    const int service_id = current_service_id();
    const std::uint32_t query_id = next_query_id();
    const std::string request = permission_request(session_id, permissions, service_id, query_id);
    log_line(kAlways, "Entry vexa_permission_query");
    log_line(kAlways, "vexa_permission_query request: %s", request.c_str());

    PendingQuery<permRes_meta_data_t> query(permission_queries(), query_id);
    if (send_in_life(request.c_str(), life) == -1) {
        log_line(kFailure, "Failed to receive VEXON permission query ack");
        return permissions.empty() ? std::vector<bool>{false} : std::vector<bool>{};
    }
    log_line(kAlways, "waiting for response in vexa_permission_query");
    std::vector<bool> granted = query.await();
    log_line(kAlways, "Exit vexa_permission_query");
    return granted;
}

AfterMessage on_permission(const Json::Value& message) {
    unsigned int query_id = 0;
    if (!query_id_validation(message, query_id)) {
        log_line(kFailure, "Discard PERMISSION result due to invalid query_id id");
        return AfterMessage::kKeepBuffer;
    }
    answer_query(permission_queries(), query_id, [&] { return read_permissions(message); });
    return AfterMessage::kClearBuffer;
}
