// SPDX-License-Identifier: Apache-2.0
#include "client/receiving/dispatch.h"

#include <exception>
#include <string>
#include <string_view>

#include "client/link/life.h"
#include "client/queries/info_query.h"
#include "client/queries/permission_query.h"
#include "client/receiving/init.h"
#include "client/services/acknowledgements.h"
#include "client/services/change_notices.h"
#include "client/sessions/end_session.h"
#include "client/sessions/ready_session.h"
#include "client/sessions/start_session.h"
#include "client/tasks/exec_task.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

struct Route {
    std::string_view req_type;
    AfterMessage (*handle)(const Json::Value& message);
};

constexpr Route kRoutes[] = {
    {"INIT", on_init},
    {"AUTH", on_auth},
    {"REGS", on_regs},
    {"REDY", on_redy},
    {"exec_task", on_exec_task},
    {"start_session", on_start_session},
    {"ready_session", on_ready_session},
    {"end_session", on_end_session},
    {"PERMISSION", on_permission},
    {"INFO_QUERY", on_info},
    {"INFO_MNTR", on_info},
    {"permission_change", on_permission_change},
    {"state_change", on_state_change},
    {"system_setting_change", on_system_setting_change},
};

AfterMessage handle_by_type(const std::string& req_type, const Json::Value& message) {
    for (const Route& route : kRoutes) {
        if (req_type == route.req_type) return route.handle(message);
    }
    log_line(kFailure, "Unknown request type '%s'", req_type.c_str());
    return AfterMessage::kClearBuffer;
}

}  // namespace

AfterMessage dispatch_message(const Json::Value& message) {
    if (superseded()) return AfterMessage::kEndThread;
    std::string req_type = "?";
    try {
        req_type = text_member(message, "req_type", "0");
        return handle_by_type(req_type, message);
    } catch (const std::exception& error) {
        log_line(kFailure, "Failed to handle message of type '%s' (%s)", req_type.c_str(),
                 error.what());
        return AfterMessage::kClearBuffer;
    }
}
