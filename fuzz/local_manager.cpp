#include "fuzz/local_manager.h"

#include "fuzz/require.h"
#include "manager/Manager.h"
#include "manager/json.h"
#include "manager/packet_socket.h"
#include "manager/requests.h"

LocalManager::LocalManager() : listener_(manager::kDefaultPath) {}

void LocalManager::take(const std::string& packet) {
    if (packet == "EXIT") return;
    const auto message = manager::parse_json(packet);
    require(message.has_value(), "the client sends JSON");
    const auto request = manager::read_request(*message);
    if (!request) return;
    if (request->step == manager::Step::Init) accept_latest();
    const auto answer = answers_.answer(*request);
    require(answer.has_value() && send(answer->text), "the introduction is answered");
}

bool LocalManager::send(const std::string& packet) {
    const auto result = manager::send_packet(connection_.get(), packet);
    if (result == manager::SendResult::Sent) ++sent_;
    return result != manager::SendResult::WouldBlock;
}

void LocalManager::close() {
    connection_ = manager::FileDescriptor();
}

// A client that lost its Manager has connected before without an introduction.
void LocalManager::accept_latest() {
    for (auto next = manager::accept_connection(listener_.get()); next.valid();
         next = manager::accept_connection(listener_.get())) {
        connection_ = std::move(next);
    }
    sent_ = 0;
}
