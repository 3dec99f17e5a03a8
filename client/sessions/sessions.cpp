// SPDX-License-Identifier: Apache-2.0
#include "client/sessions/sessions.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "client/link/life.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

thread_local bool tSessionsUnlocked = false;

template <class Items, class Append>
void append_list(std::string* text, const Items& items, Append append) {
    const char* separator = "";
    for (const auto& item : items) {
        *text += separator;
        append(item);
        separator = ",";
    }
}

void append_started(std::string* text,
                    const std::map<std::uint32_t, std::vector<std::uint32_t>>& started) {
    append_list(text, started, [text](const auto& service) {
        char opcode[9];
        std::snprintf(opcode, sizeof(opcode), "%08" PRIx32, service.first);
        *text += "{\"id\":\"0x";
        *text += opcode;
        *text += "\",\"subsystems\":[";
        append_list(text, service.second, [text](std::uint32_t subsystem) {
            *text += "{\"id\":" + std::to_string(subsystem) + "}";
        });
        *text += "]}";
    });
}

}  // namespace

std::vector<SessionTarget> read_session_targets(const Json::Value& message) {
    std::vector<SessionTarget> targets;
    for (const Json::Value& element : member(message, "opcodes")) {
        const std::string opcode = text_member(element, "id", "0");
        SessionTarget target{static_cast<std::uint32_t>(std::strtoull(opcode.c_str(), nullptr, 16)),
                             {}};
        for (const Json::Value& subsystem : member(element, "subsystems")) {
            target.subsystems.push_back(uint_member(subsystem, "id", 0));
        }
        targets.push_back(std::move(target));
    }
    return targets;
}

bool read_session_id(const Json::Value& message, std::uint32_t* session_id) {
    const Json::Value* const id = find_member(message, "session_id");
    if (id != nullptr && !id->isUInt()) return false;
    *session_id = id == nullptr ? 0 : id->asUInt();
    return true;
}

std::uint32_t read_transaction_id(const Json::Value& message) {
    const Json::Value& id = member(message, "transac_id");
    return id.isUInt() ? id.asUInt() : static_cast<std::uint32_t>(as_int(id));
}

bool session_exists(std::uint32_t session_id) {
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    return gSessions.count(session_id) != 0;
}

std::optional<StateCallback> find_state_callback(std::uint32_t opcode) {
    std::lock_guard<std::mutex> lock(gReadyMutex);
    const auto service = gReady.find(opcode);
    if (service == gReady.end()) return std::nullopt;
    return StateCallback{service->second.state_callback, service->second.user_data};
}

std::map<std::uint32_t, StateCallback> all_state_callbacks() {
    std::map<std::uint32_t, StateCallback> callbacks;
    std::lock_guard<std::mutex> lock(gReadyMutex);
    for (const auto& [opcode, service] : gReady) {
        callbacks[opcode] = {service.state_callback, service.user_data};
    }
    return callbacks;
}

vexa_req_t make_state_request(vexa_status_t status, std::uint32_t opcode, std::uint32_t subsys_id,
                              std::uint32_t session_id) {
    vexa_req_t request{};
    request.status = status;
    request.opcode = opcode;
    request.subsys_id = subsys_id;
    request.session_id = session_id;
    return request;
}

int call_state_callback(const StateCallback& callback, int service_id, vexa_req_t request) {
    if (callback.function == nullptr || superseded()) return -1;
    const SessionCallbackScope scope;
    tSessionsUnlocked = false;
    return callback.function(service_id, &request, callback.user_data);
}

int inform_session_state(unsigned session_id, unsigned opcode, unsigned subsystem,
                         vexa_state_callback_t callback, void* user_data, vexa_status_t status) {
    log_line(kAlways, "in inform_session_state");
    return call_state_callback({callback, user_data}, current_service_id(),
                               make_state_request(status, opcode, subsystem, session_id));
}

SessionsUnlocked::SessionsUnlocked() NO_THREAD_SAFETY_ANALYSIS
    : inside_callback_(in_session_callback()) {
    if (!inside_callback_) return;
    tSessionsUnlocked = true;
    gSessionsMutex.unlock();
}

SessionsUnlocked::~SessionsUnlocked() NO_THREAD_SAFETY_ANALYSIS {
    if (inside_callback_) gSessionsMutex.lock();
}

bool sessions_were_unlocked() {
    return tSessionsUnlocked;
}

void await_session_callback() {
    std::lock_guard<std::mutex> lock(gSessionsMutex);
}

int send_session_response(bool is_start, bool success, std::uint32_t session_id,
                          const std::map<std::uint32_t, std::vector<std::uint32_t>>& started) {
    std::string text = "{\"req_type\":\"";
    text += is_start ? "start_session" : "end_session";
    text += "\",\"session_id\":";
    text += std::to_string(session_id);
    text += ",\"Result\":\"";
    text += success ? "Success" : "Failed";
    if (is_start) {
        text += "\",\"opcodes\":[";
        append_started(&text, started);
        text += "]}";
    } else {
        text += "\"}";
    }
    // The lock keeps whoever ends this life waiting, so that a response meets no later connection.
    std::lock_guard<std::mutex> lock(gSessionsMutex);
    return superseded() ? -1 : vexa_send_to_manager_raw(text.c_str());
}
