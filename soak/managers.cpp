#include "managers.h"

#include <algorithm>
#include <array>

#include "contract.h"

namespace soak {
namespace {

constexpr std::string_view kReady = R"("req_type":"REDY")";

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

bool is_answered_by_manager(const std::string& text) {
    constexpr std::array<std::string_view, 6> kTypes = {
        R"("req_type":"INIT")",       R"("req_type":"AUTH")",       kReady,
        R"("req_type":"PERMISSION")", R"("req_type":"INFO_QUERY")", R"("req_type":"INFO_MNTR")"};
    return std::any_of(kTypes.begin(), kTypes.end(),
                       [&](std::string_view type) { return contains(text, type); });
}

bool is_leave(const std::string& text) {
    return text == "EXIT" || contains(text, R"("req_type":"DINT")");
}

bool is_wanted(const manager::Packet& packet) {
    if (packet.direction == manager::Direction::FromClient) {
        return !is_answered_by_manager(packet.text) && !is_leave(packet.text);
    }
    return contains(packet.text, R"("req_type":"exec_task")") ||
           contains(packet.text, kNoticePrefix);
}

}  // namespace

std::unique_ptr<manager::SimulatedManager> Managers::open(const char* path) {
    auto opened = std::make_unique<manager::SimulatedManager>(path);
    for (std::uint64_t number = 0; number < kNames; ++number) {
        if (is_granted(number)) opened->grant(permission_name(number));
        opened->set_info(info_name(number), info_text(number));
    }
    opened->set_observer(
        [this, from = opened.get()](const manager::Packet& packet) { note(from, packet); },
        [this](const manager::ConnectionChange& change) {
            if (change.change != manager::Change::Connected) inbox_.add(Disconnection{});
        });
    opened->start();
    return opened;
}

void Managers::start() {
    plain_ = open(manager::kDefaultPath);
    dedicated_ = open(manager::kDedicatedPath);
}

void Managers::stop() {
    service_ = {};
    plain_.reset();
    dedicated_.reset();
}

void Managers::note(manager::SimulatedManager* from, const manager::Packet& packet) {
    if (packet.direction == manager::Direction::FromClient && contains(packet.text, kReady)) {
        const std::lock_guard lock(mutex_);
        latest_ = {from, packet.client};
    }
    if (is_wanted(packet)) inbox_.add(packet);
}

void Managers::follow_service() {
    const std::lock_guard lock(mutex_);
    service_ = latest_;
}

void Managers::send(const std::string& text) {
    if (service_.manager == nullptr) return;
    try {
        service_.manager->send(service_.number, text);
    } catch (const manager::ManagerError&) {
        service_ = {};
    }
}

}  // namespace soak
