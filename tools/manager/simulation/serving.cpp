// The parts of SimulatedManager that move packets: its thread, and sending from any thread.

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

#include "manager/simulation/Manager.h"
#include "manager/simulation/packet_socket.h"

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
    int timeout = -1;
    do {
        {
            const Lock lock(mutex_);
            events = poll_set();
            timeout = delayed_.poll_timeout(Clock::now());
        }
        poll(events.data(), events.size(), timeout);
    } while (handle_events(events));
    disconnect_all();
}

std::vector<pollfd> SimulatedManager::poll_set() const {
    std::vector<pollfd> set{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const ConnectedClient& client : clients_) {
        const int wanted = (reading_ ? POLLIN : 0) | (client.unsent.empty() ? 0 : POLLOUT);
        // With nothing wanted, poll() would still return at once when the client has left.
        const int watched = wanted == 0 ? -1 : client.connection.get();
        set.push_back({watched, static_cast<short>(wanted), 0});
    }
    return set;
}

/// Returns whether the thread shall go on.
bool SimulatedManager::handle_events(const std::vector<pollfd>& events) {
    const Lock lock(mutex_);
    auto event = events.begin() + kFirstClientIndex;
    for (ConnectedClient& client : clients_) {
        const int happened = (event++)->revents;
        if (happened & POLLOUT) flush(client);
        if (reading_ && (happened & ~POLLOUT)) client.left = !receive_from(client);
    }
    send_due_answers();
    remove_closing_clients();
    if (events[kListenerIndex].revents != 0) accept_clients();
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
        notify(last_client_, Change::Connected);
    }
}

/// Returns whether more may come.
bool SimulatedManager::receive_from(ConnectedClient& client) {
    const Received received = receive_packet(client.connection.get());
    if (received.kind == Received::Kind::Packet) {
        handle(client, record(client, Direction::FromClient, received.text));
    }
    if (received.kind == Received::Kind::Closed) client.closing = true;
    return received.kind != Received::Kind::Closed;
}

void SimulatedManager::remove_closing_clients() {
    for (auto client = clients_.begin(); client != clients_.end();) {
        if (!client->closing) {
            ++client;
            continue;
        }
        // The client sees a reset if a packet of it is left unread.
        if (client->ending == Ending::Orderly) {
            end_connection(client->connection.get());
            while (receive_from(*client)) continue;
        }
        const int number = client->number;
        const Change change = client->left ? Change::Left : Change::Closed;
        routes_.remove_client(number);
        client = clients_.erase(client);
        notify(number, change);
    }
}

void SimulatedManager::disconnect_all() {
    const Lock lock(mutex_);
    // A client that waits to be accepted sees a reset, too.
    if (ending_ == Ending::Orderly) {
        end_connection(listener_.get());
        accept_clients();
    }
    begin_to_close(ending_);
    remove_closing_clients();
    changed_.notify_all();
}

ConnectedClient* SimulatedManager::find_client(int number) {
    const auto client =
        std::find_if(clients_.begin(), clients_.end(),
                     [&](const ConnectedClient& c) { return c.number == number && !c.closing; });
    return client == clients_.end() ? nullptr : &*client;
}

ConnectedClient& SimulatedManager::client_for(Opcode opcode) {
    const std::optional<int> number = routes_.find(opcode);
    ConnectedClient* const client = number ? find_client(*number) : nullptr;
    if (client != nullptr) return *client;
    throw ManagerError("no connected client has authenticated opcode " + opcode_text(opcode));
}

/// Sends the packet, or queues it if the connection has no room for it now.
void SimulatedManager::deliver(ConnectedClient& client, const std::string& text) {
    if (text.size() > client.max_packet_size) {
        throw ManagerError("a packet of " + std::to_string(text.size()) +
                           " bytes is larger than the system allows to send, which is " +
                           std::to_string(client.max_packet_size) + " (see net.core.wmem_max)");
    }
    enqueue(client, text);
}

/// As deliver(), but a packet that is too large is lost.
void SimulatedManager::enqueue(ConnectedClient& client, const std::string& text) {
    client.unsent.push_back(text);
    flush(client);
    if (!client.unsent.empty()) wake_thread();
}

/// Sends the packets that wait in the client's queue, as far as the connection has room.
void SimulatedManager::flush(ConnectedClient& client) {
    for (; !client.unsent.empty(); client.unsent.pop_front()) {
        const SendResult result = send_packet(client.connection.get(), client.unsent.front());
        if (result == SendResult::WouldBlock) return;
        if (result == SendResult::Closed) continue;
        record(client, Direction::ToClient, client.unsent.front());
    }
}

const Packet& SimulatedManager::record(const ConnectedClient& client, Direction direction,
                                       const std::string& text) {
    const Packet& packet = log_.append(
        {Clock::now(), std::chrono::system_clock::now(), client.number, direction, text});
    if (on_packet_) on_packet_(packet);
    return packet;
}

void SimulatedManager::notify(int client, Change change) {
    if (!on_connection_) return;
    on_connection_({Clock::now(), std::chrono::system_clock::now(), client, change});
}

void SimulatedManager::handle(ConnectedClient& client, const Packet& packet) {
    const auto message = parse_json(packet.text);
    if (const auto request = message ? read_request(*message) : read_broken_auth(packet.text)) {
        answer(client, *request);
    } else if (const auto reply = message ? read_reply(*message) : read_broken_reply(packet.text)) {
        replies_.keep(*reply, packet);
    }
}

}  // namespace manager
