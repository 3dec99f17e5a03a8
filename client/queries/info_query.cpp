// SPDX-License-Identifier: Apache-2.0
#include "client/queries/info_query.h"

#include "client/link/send.h"
#include "client/queries/query.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

QueryTable<res_infos_meta_data_t> info_queries() NO_THREAD_SAFETY_ANALYSIS {
    return {gInfoMutex, gInfo};
}

std::string info_request(unsigned int session_id, const std::vector<std::string>& names,
                         const std::string& kind, std::uint32_t query_id) {
    std::string text = "{\"req_type\":\"";
    text += kind;
    text += ",\"Session_Id\":";
    text += std::to_string(session_id);
    text += ",\"QueryId\":";
    text += std::to_string(query_id);
    text += ",\"QueryInfos\":[";
    text += vector_to_string_with_quotes(names);
    text += "]}";
    return text;
}

std::vector<std::string> read_infos(const Json::Value& message) {
    const Json::Value& elements = member(message, "QueryInfosRes");
    log_line(kTrace, "size of result array: %d", static_cast<int>(elements.size()));
    std::vector<std::string> infos;
    for (const Json::Value& element : elements) {
        infos.push_back(as_text(element));
        log_line(kTrace, "i = %d, info result: %s", static_cast<int>(infos.size() - 1),
                 infos.back().c_str());
    }
    return infos;
}

std::vector<std::string> ask(unsigned int session_id, const std::vector<std::string>& names,
                             const std::string& kind, const char* label, Life life) {
    set_query_outcome(VEXA_QUERY_NOT_SENT);
    if (names.empty()) return {"ERROR:Empty requested info"};
    const std::uint32_t query_id = next_query_id();
    const std::string request = info_request(session_id, names, kind, query_id);
    log_line(kTrace, "vexa_info_%s request: %s", label, request.c_str());

    PendingQuery<res_infos_meta_data_t> query(info_queries(), query_id);
    if (send_in_life(request.c_str(), life) == -1) {
        log_line(kFailure, "Failed to receive VEXON info query ack");
        // The number of names is kept in 8 bits.
        return std::vector<std::string>(static_cast<std::uint8_t>(names.size()));
    }
    log_line(kAlways, "waiting for response in vexa_info_%s", label);
    std::vector<std::string> infos = query.await();
    log_line(kTrace, "Exit vexa_info_%s", label);
    return infos;
}

}  // namespace

std::vector<std::string> vexa_info_query(unsigned int session_id, std::vector<std::string> names) {
    return vexa_info_common(session_id, names, "INFO_QUERY\"", "query");
}

std::vector<std::string> vexa_info_monitor(unsigned int session_id,
                                           std::vector<std::string> names) {
    const Life life = life_of_call();
    const std::string kind = "INFO_MNTR\",\"service_id\":" + std::to_string(current_service_id());
    return ask(session_id, names, kind, "monitor", life);
}

std::vector<std::string> vexa_info_common(unsigned int session_id,
                                          const std::vector<std::string>& names,
                                          const std::string& kind, const char* label) {
    return ask(session_id, names, kind, label, life_of_call());
}

AfterMessage on_info(const Json::Value& message) {
    unsigned int query_id = 0;
    if (!query_id_validation(message, query_id)) {
        log_line(kFailure, "Discard %s result due to invalid query_id id",
                 message["req_type"].asCString());
        return AfterMessage::kKeepBuffer;
    }
    answer_query(info_queries(), query_id, [&] { return read_infos(message); });
    return AfterMessage::kClearBuffer;
}
