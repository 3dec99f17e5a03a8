#include "session_book.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <vexon2_0.h>

#include <algorithm>

namespace soak {

std::string SessionBook::text_of(const Key& key) const {
    return fmt::format("service {:#x}::{} of session {}", key.second >> 32,
                       static_cast<std::uint32_t>(key.second), key.first);
}

void SessionBook::told(const Record& record) {
    const Key key{record.first, record.second};
    const auto service = services_.find(key);
    const bool known = service != services_.end();
    switch (record.detail) {
        case VEXA_STATUS_SESSION_START:
            if (known) findings_.fail(Check::kSessions, "another start of " + text_of(key));
            services_[key] = State::kStarted;
            ++started_;
            return;
        case VEXA_STATUS_SESSION_READY:
            if (!known || service->second != State::kStarted) {
                findings_.fail(Check::kSessions, "readiness of " + text_of(key));
            }
            services_[key] = State::kReady;
            ++readied_;
            return;
        default:
            if (!known) findings_.fail(Check::kSessions, "another end of " + text_of(key));
            services_.erase(key);
            ++ended_;
    }
}

void SessionBook::connected_after_loss() {
    ++losses_;
    if (terminated_ != losses_ || reconnected_ != losses_) {
        findings_.fail(Check::kLossTold, fmt::format("told of {} losses and {} returns, not of {}",
                                                     terminated_, reconnected_, losses_));
    }
    if (services_.empty()) return;
    findings_.fail(Check::kSessions, "no end by the loss for " + text_of(services_.begin()->first));
}

void SessionBook::connected_after_leave() {
    for (auto& [key, state] : services_) {
        if (state != State::kLeft) ++left_;
        state = State::kLeft;
    }
}

bool SessionBook::is_settled() const {
    return std::all_of(services_.begin(), services_.end(),
                       [](const auto& entry) { return entry.second == State::kLeft; });
}

void SessionBook::close() {
    for (const auto& [key, state] : services_) {
        if (state != State::kLeft) findings_.fail(Check::kSessions, "no end of " + text_of(key));
    }
}

std::string start_response(const Session& session, bool success) {
    std::vector<std::string> services;
    for (const manager::Target& target : session.targets) {
        std::vector<std::string> subsystems;
        for (const auto id : target.subsystems) {
            subsystems.push_back(fmt::format(R"({{"id":{}}})", id));
        }
        services.push_back(fmt::format(R"({{"id":"0x{:08x}","subsystems":[{}]}})", target.opcode,
                                       fmt::join(subsystems, ",")));
    }
    if (!success) services.clear();
    return fmt::format(
        R"({{"req_type":"start_session","session_id":{},"Result":"{}","opcodes":[{}]}})",
        session.id, success ? "Success" : "Failed", fmt::join(services, ","));
}

std::string end_response(const Session& session, bool success) {
    return fmt::format(R"({{"req_type":"end_session","session_id":{},"Result":"{}"}})", session.id,
                       success ? "Success" : "Failed");
}

}  // namespace soak
