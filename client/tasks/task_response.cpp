// SPDX-License-Identifier: Apache-2.0
#include "client/tasks/task_response.h"

#include "client/utility/VexonTimer.h"

namespace {

constexpr const char* kNoResult = "-1";
constexpr std::size_t kRoomForTheRest = 192;  // keys and numbers, at their longest

std::string plain_result(const _vexon_call_info_t& call, const std::string& req_type) {
    return "{\"req_type\":\"" + req_type + "\", \"Result\":\"" + call.func + "\"}";
}

std::string task_response(const _vexon_call_info_t& call) {
    const bool has_result = call.func != kNoResult;
    std::string text;
    text.reserve(call.opcode.size() + call.name.size() + call.func.size() + kRoomForTheRest);
    text += "{\"opcode\":\"";
    text += call.opcode;
    text += "\",\"name\":\"";
    text += call.name;
    text += "\",\"subsys_id\":\"";
    text += std::to_string(call.subsys_id);
    text += "\",\"req_type\":\"exec_task\",\"return\":";
    text += std::to_string(call.return_value);
    text += ",\"func\":{";
    if (has_result) text += call.func;
    text += "},\"transac_id\":";
    text += std::to_string(static_cast<std::uint32_t>(call.transac_id));
    text += ",\"status\": ";
    text += std::to_string(has_result ? call.status : -1);
    text += ",\"session_id\":";
    text += std::to_string(call.session_id);
    text += "}";
    return text;
}

}  // namespace

std::string response_text(const _vexon_call_info_t& call, const std::string& req_type) {
    MillisecondTimer timer('m', call.session_id, static_cast<std::uint32_t>(call.transac_id));
    std::string text = call.transac_id == -1 ? plain_result(call, req_type) : task_response(call);
    timer.stop("vexaSendResponse KRV time taken");
    return text;
}

void vexa_send_response(_vexon_call_info_t* info, std::string req_type) {
    vexa_send_to_manager_raw(response_text(*info, req_type).c_str());
}
