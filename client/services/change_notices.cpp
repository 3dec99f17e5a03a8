// SPDX-License-Identifier: Apache-2.0
#include "client/services/change_notices.h"

#include <cstdlib>
#include <mutex>
#include <string>

#include "client/IVexaClient.h"
#include "client/link/life.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

thread_local bool tInNotice = false;

class NoticeScope {
  public:
    NoticeScope() { tInNotice = true; }
    ~NoticeScope() { tInNotice = false; }
    NoticeScope(const NoticeScope&) = delete;
    NoticeScope& operator=(const NoticeScope&) = delete;
};

void notify(const ready_meta_data& service, int service_id, vexa_req_t notice) {
    if (service.state_callback == nullptr) return;
    service.state_callback(service_id, &notice, service.user_data);
}

void notify_ready_services(const vexa_req_t& notice) {
    const int service_id = current_service_id();
    std::lock_guard<std::mutex> lock(gReadyMutex);
    const NoticeScope scope;
    if (superseded()) return;
    for (const auto& [opcode, service] : gReady) {
        notify(service, service_id, notice);
    }
}

AfterMessage notify_of_state(const Json::Value& message, vexa_status_t status) {
    vexa_req_t notice{};
    notice.status = status;
    const std::string state = text_member(message, "state", "null");
    notice.session_id = uint_member(message, "session_id", 0);
    const std::string value = text_member(message, "value", "null");
    notice.state = state + ":" + value;
    notice.package = text_member(message, "package", "null");
    log_line(kTrace, "State change: %s, session_id: %d, package: %s, state: %s",
             message["req_type"].asCString(), static_cast<int>(notice.session_id),
             notice.package.c_str(), notice.state.c_str());
    if (notice.state.find("null") != std::string::npos) return AfterMessage::kClearBuffer;
    notify_ready_services(notice);
    return AfterMessage::kClearBuffer;
}

}  // namespace

AfterMessage on_state_change(const Json::Value& message) {
    return notify_of_state(message, VEXA_STATUS_STATE_CHANGE);
}

AfterMessage on_system_setting_change(const Json::Value& message) {
    return notify_of_state(message, VEXA_STATUS_SYSTEM_SETTING_CHANGE);
}

AfterMessage on_permission_change(const Json::Value& message) {
    vexa_req_t notice{};
    notice.status = VEXA_STATUS_PERMISSION_CHANGE;
    const std::string session_id = text_member(message, "sesson_id", "0");  // spelt like this
    notice.session_id = static_cast<std::uint32_t>(std::strtoull(session_id.c_str(), nullptr, 10));
    const std::string granted = text_member(message, "status", "0");
    notice.permission_status = std::strtol(granted.c_str(), nullptr, 10) != 0 ? 1 : 0;
    notice.permission = text_member(message, "permission", "");
    notice.package = text_member(message, "package", "null");
    log_line(
        kTrace,
        "Req_type: %s Opcode: %d ssid: %d session_id: %d permission: %s package: %s status: %d",
        message["req_type"].asCString(), static_cast<int>(notice.opcode),
        static_cast<int>(notice.subsys_id), static_cast<int>(notice.session_id),
        notice.permission.c_str(), notice.package.c_str(),
        static_cast<int>(notice.permission_status));
    notify_ready_services(notice);
    return AfterMessage::kClearBuffer;
}

bool refused_in_notice(const char* function) {
    if (!tInNotice) return false;
    log_line(kFailure, "Failed to run %s: it cannot be called in a notice of a change", function);
    return true;
}
