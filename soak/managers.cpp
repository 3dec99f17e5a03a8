#include "managers.h"

#include <algorithm>
#include <array>

#include "contract.h"

namespace soak {
namespace {

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

bool is_answered_by_manager(const std::string& text) {
    constexpr std::array<std::string_view, 6> kTypes = {
        R"("req_type":"INIT")",       R"("req_type":"AUTH")",       R"("req_type":"REDY")",
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
        [this](const manager::Packet& packet) {
            if (is_wanted(packet)) inbox_.add(packet);
        },
        [this](int, bool connected) {
            if (!connected) inbox_.add(Disconnection{});
        });
    opened->start();
    return opened;
}

void Managers::start() {
    plain_ = open(manager::kDefaultPath);
    dedicated_ = open(manager::kDedicatedPath);
}

void Managers::stop() {
    plain_.reset();
    dedicated_.reset();
}

void Managers::send(const std::string& text) {
    for (auto* const manager : {plain_.get(), dedicated_.get()}) {
        if (manager == nullptr) continue;
        try {
            manager->send_for_opcode(kServices[0].opcode, text);
            return;
        } catch (const manager::ManagerError&) {
            // The service is not at this socket.
        }
    }
}

}  // namespace soak
