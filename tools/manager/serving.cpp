// The parts of SimulatedManager that move packets: its thread, and sending from any thread.

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

#include "manager/Manager.h"
#include "manager/packet_socket.h"

namespace manager {
namespace {

// The order of the poll set; the clients follow in their own order.
constexpr std::size_t kWakeIndex = 0;
constexpr std::size_t kListenerIndex = 1;
constexpr std::size_t kFirstClientIndex = 2;

}  // namespace

void SimulatedManager::wake_thread() const {
    eventfd_write(wake_.get(), 1);
}

void SimulatedManager::serve() {
    std::vector<pollfd> events;
    do {
        {
            const Lock lock(mutex_);
            events = poll_set();
        }
        poll(events.data(), events.size(), -1);
    } while (handle_events(events));
}

std::vector<pollfd> SimulatedManager::poll_set() const {
    std::vector<pollfd> set{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const Client& client : clients_) {
        const short wanted = client.unsent.empty() ? POLLIN : POLLIN | POLLOUT;
        set.push_back({client.connection.get(), wanted, 0});
    }
    return set;
}

/// Returns whether the thread shall go on.
bool SimulatedManager::handle_events(const std::vector<pollfd>& events) {
    const Lock lock(mutex_);
    auto event = events.begin() + kFirstClientIndex;
    for (Client& client : clients_) {
        const int happened = (event++)->revents;
        if (happened & POLLOUT) flush(client);
        if (happened & ~POLLOUT) receive_from(client);
    }
    remove_closing_clients();
    if (events[kListenerIndex].revents != 0 && running_) accept_clients();
    if (events[kWakeIndex].revents != 0) {
        eventfd_t ignored = 0;
        eventfd_read(wake_.get(), &ignored);
    }
    changed_.notify_all();
    return running_;
}

void SimulatedManager::accept_clients() {
    while (true) {
        FileDescriptor connection = accept_connection(listener_.get());
        if (!connection.valid()) return;
        const std::size_t limit = max_packet_size(connection.get());
        clients_.push_back({++last_client_, std::move(connection), limit});
        if (on_connection_) on_connection_(last_client_, true);
    }
}

void SimulatedManager::receive_from(Client& client) {
    const Received received = receive_packet(client.connection.get());
    if (received.kind == Received::Kind::Closed) client.closing = true;
    if (received.kind != Received::Kind::Packet) return;
    handle(client, record(client, Direction::FromClient, received.text));
}

void SimulatedManager::remove_closing_clients() {
    for (auto client = clients_.begin(); client != clients_.end();) {
        if (!client->closing) {
            ++client;
            continue;
        }
        const int number = client->number;
        routes_.remove_client(number);
        client = clients_.erase(client);
        if (on_connection_) on_connection_(number, false);
    }
}

SimulatedManager::Client* SimulatedManager::find_client(int number) {
    const auto client = std::find_if(clients_.begin(), clients_.end(), [&](const Client& c) {
        return c.number == number && !c.closing;
    });
    return client == clients_.end() ? nullptr : &*client;
}

SimulatedManager::Client& SimulatedManager::client_for(Opcode opcode) {
    const std::optional<int> number = routes_.find(opcode);
    Client* const client = number ? find_client(*number) : nullptr;
    if (client != nullptr) return *client;
    throw ManagerError("no connected client has authenticated opcode " + opcode_text(opcode));
}

std::map<int, std::vector<Target>> SimulatedManager::by_client(const std::vector<Target>& targets) {
    std::map<int, std::vector<Target>> groups;
    for (const Target& target : targets) groups[client_for(target.opcode).number].push_back(target);
    return groups;
}

/// Sends the packet, or queues it if the connection has no room for it now.
void SimulatedManager::deliver(Client& client, const std::string& text) {
    if (text.size() > client.max_packet_size) {
        throw ManagerError("a packet of " + std::to_string(text.size()) +
                           " bytes is larger than the system allows to send, which is " +
                           std::to_string(client.max_packet_size) + " (see net.core.wmem_max)");
    }
    client.unsent.push_back(text);
    flush(client);
    if (!client.unsent.empty()) wake_thread();
}

/// Sends the packets that wait in the client's queue, as far as the connection has room.
void SimulatedManager::flush(Client& client) {
    for (; !client.unsent.empty(); client.unsent.pop_front()) {
        const SendResult result = send_packet(client.connection.get(), client.unsent.front());
        if (result == SendResult::WouldBlock) return;
        if (result == SendResult::Closed) continue;
        record(client, Direction::ToClient, client.unsent.front());
    }
}

const Packet& SimulatedManager::record(const Client& client, Direction direction,
                                       const std::string& text) {
    const Packet& packet = log_.append(
        {Clock::now(), std::chrono::system_clock::now(), client.number, direction, text});
    if (on_packet_) on_packet_(packet);
    return packet;
}

void SimulatedManager::handle(Client& client, const Packet& packet) {
    const auto message = parse_json(packet.text);
    if (!message) return;
    if (const auto request = read_request(*message)) {
        answer(client, *request);
    } else if (const auto reply = read_reply(*message)) {
        keep_reply(*reply, packet);
    }
}

void SimulatedManager::answer(Client& client, const Request& request) {
    if (request.step == Step::Auth && request.opcode && !answers_.refuses(request)) {
        routes_.add(*request.opcode, client.number);
    }
    if (const auto text = answers_.answer(request)) deliver(client, *text);
}

void SimulatedManager::keep_reply(const ReplyHead& head, const Packet& packet) {
    const auto task = pending_tasks_.find(head.transaction);
    if (task == pending_tasks_.end()) return;
    replies_.push_back({head.transaction, head.status, packet.time - task->second, packet});
    pending_tasks_.erase(task);
}

}  // namespace manager
