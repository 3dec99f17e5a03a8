// The parts of SimulatedManager that move packets: its thread, and sending from any thread.

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "manager/base/json.h"
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
            timeout = poll_timeout();
        }
        poll(events.data(), events.size(), timeout);
    } while (handle_events(events));
    disconnect_all();
}

std::vector<pollfd> SimulatedManager::poll_set() const {
    std::vector<pollfd> set{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const Client& client : clients_) {
        const int wanted = (reading_ ? POLLIN : 0) | (client.unsent.empty() ? 0 : POLLOUT);
        // With nothing wanted, poll() would still return at once when the client has left.
        const int watched = wanted == 0 ? -1 : client.connection.get();
        set.push_back({watched, static_cast<short>(wanted), 0});
    }
    return set;
}

/// Until the first delayed answer is due.
int SimulatedManager::poll_timeout() const {
    if (delayed_.empty()) return -1;
    const auto left = delayed_.begin()->first - Clock::now();
    // Rounded up: to poll for nothing until the time comes would take the processor.
    return std::max(0, static_cast<int>(std::chrono::ceil<Timeout>(left).count()));
}

/// Returns whether the thread shall go on.
bool SimulatedManager::handle_events(const std::vector<pollfd>& events) {
    const Lock lock(mutex_);
    auto event = events.begin() + kFirstClientIndex;
    for (Client& client : clients_) {
        const int happened = (event++)->revents;
        if (happened & POLLOUT) flush(client);
        if (!reading_ || (happened & ~POLLOUT) == 0 || receive_from(client)) continue;
        client.left = true;
        if (!client.closing) client.closing = Ending::Orderly;
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
        note(last_client_, Kind::Connected);
    }
}

/// Returns whether more may come.
bool SimulatedManager::receive_from(Client& client) {
    std::optional<std::string> text;
    const bool is_open = receive_packet(client.connection.get(), text);
    if (text) {
        note(client.number, Kind::FromClient, *text);
        handle(client, log_.back());
    }
    return is_open;
}

void SimulatedManager::remove_closing_clients() {
    for (auto client = clients_.begin(); client != clients_.end();) {
        if (!client->closing) {
            ++client;
            continue;
        }
        // The client sees a reset if a packet of it is left unread.
        if (client->closing == Ending::Orderly) {
            shutdown(client->connection.get(), SHUT_RDWR);
            while (receive_from(*client)) continue;
        }
        const int number = client->number;
        const Kind kind = client->left ? Kind::Left : Kind::Closed;
        routes_.remove_if([&](const auto& route) { return route.second == &*client; });
        client = clients_.erase(client);
        note(number, kind);
    }
}

void SimulatedManager::disconnect_all() {
    const Lock lock(mutex_);
    // A client that waits to be accepted sees a reset, too.
    if (ending_ == Ending::Orderly) {
        shutdown(listener_.get(), SHUT_RDWR);
        accept_clients();
    }
    begin_to_close(ending_);
    remove_closing_clients();
    changed_.notify_all();
}

SimulatedManager::Client* SimulatedManager::find_client(int number) {
    const auto client = std::find_if(clients_.begin(), clients_.end(), [&](const Client& c) {
        return c.number == number && !c.closing;
    });
    return client == clients_.end() ? nullptr : &*client;
}

SimulatedManager::Client& SimulatedManager::client_for(Opcode opcode) {
    for (const auto& [authenticated, client] : routes_) {
        if (authenticated == opcode && !client->closing) return *client;
    }
    throw ManagerError("no connected client has authenticated opcode " + opcode_text(opcode));
}

/// Sends the packet, or queues it if the connection has no room for it now.
void SimulatedManager::deliver(Client& client, const std::string& text) {
    if (text.size() > client.max_packet_size) {
        throw ManagerError("a packet of " + std::to_string(text.size()) +
                           " bytes is larger than the system allows to send, which is " +
                           std::to_string(client.max_packet_size) + " (see net.core.wmem_max)");
    }
    enqueue(client, text);
}

/// As deliver(), but a packet that is too large is lost.
void SimulatedManager::enqueue(Client& client, const std::string& text) {
    client.unsent.push_back(text);
    flush(client);
    if (!client.unsent.empty()) wake_thread();
}

/// Sends the packets that wait in the client's queue, as far as the connection has room.
void SimulatedManager::flush(Client& client) {
    for (; !client.unsent.empty(); client.unsent.pop_front()) {
        const std::string& text = client.unsent.front();
        const bool sent =
            ::send(client.connection.get(), text.data(), text.size(), MSG_NOSIGNAL) >= 0;
        // The kernel lacks memory now and then for a large packet, which need not be lost for that.
        if (!sent && (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)) return;
        if (sent) note(client.number, Kind::ToClient, text);
    }
}

void SimulatedManager::note(int client, Kind kind, const std::string& text) {
    constexpr std::size_t kMaxLogBytes = std::size_t{256} * 1024 * 1024;
    const auto cost = [](const Packet& packet) { return sizeof(Packet) + packet.text.size(); };
    Event event{Clock::now(), std::chrono::system_clock::now(), client, kind, text};
    if (observer_) observer_(event);
    if (!is_packet(event)) return;
    log_bytes_ += cost(event);
    log_.push_back(std::move(event));
    for (; log_bytes_ > kMaxLogBytes; ++first_) {
        log_bytes_ -= cost(log_.front());
        log_.pop_front();
    }
}

void SimulatedManager::handle(Client& client, const Packet& packet) {
    std::string fault;
    auto message = parse_json(packet.text);
    if (!message) message = read_broken(packet.text, fault);
    if (const auto reply = read_reply(*message)) {
        const auto task = pending_.find(reply->transaction);
        if (task == pending_.end()) return;
        replies_.push_back({reply->transaction, reply->status, packet.time - task->second, packet});
        pending_.erase(task);
    }
    const Answer answer = answer_to(*message, fault);
    if (answer.authenticated) routes_.emplace_front(*answer.authenticated, &client);
    for (int i = 0; i < answer.times; ++i) {
        if (answer.delay.count() == 0) {
            enqueue(client, answer.text);
        } else {
            delayed_.emplace(Clock::now() + answer.delay, std::pair(client.number, answer.text));
        }
    }
}

void SimulatedManager::send_due_answers() {
    while (!delayed_.empty() && delayed_.begin()->first <= Clock::now()) {
        const auto [number, text] = delayed_.extract(delayed_.begin()).mapped();
        if (Client* const client = find_client(number)) enqueue(*client, text);
    }
}

}  // namespace manager
