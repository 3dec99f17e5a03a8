// SPDX-License-Identifier: Apache-2.0
// The parts of SimulatedManager that move packets: its thread, and sending from any thread.

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "manager/base/json.h"
#include "manager/simulation/Manager.h"

namespace manager {
namespace {

/// The size in bytes of the largest packet that can be sent.
std::size_t max_packet_size(int connection) {
    // What the kernel keeps of a send buffer when it judges whether a packet fits.
    constexpr int kReserve = 32;
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    getsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, &size);
    return static_cast<std::size_t>(bytes - kReserve);
}

/// Receives a packet of any size, if there is one. Returns false once there will be no more.
bool receive_packet(int connection, std::optional<std::string>& packet) {
    const ssize_t size = recv(connection, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    // A peer that closed without reading everything is reported once by ECONNRESET, before the
    // packets it sent last; the end of those is reported by size 0.
    if (size < 0) return errno == EAGAIN || errno == EINTR || errno == ECONNRESET;
    pollfd state{connection, POLLRDHUP, 0};
    if (size == 0 && poll(&state, 1, 0) > 0) return false;
    std::string text(static_cast<std::size_t>(size), '\0');
    if (recv(connection, text.data(), text.size(), 0) == size) packet = std::move(text);
    return true;
}

}  // namespace

void SimulatedManager::wake_thread() const {
    eventfd_write(wake_.get(), 1);
}

void SimulatedManager::serve() {
    Lock lock(mutex_);
    do {
        std::vector<pollfd> events = poll_set();
        const int timeout = poll_timeout();
        lock.unlock();
        poll(events.data(), events.size(), timeout);
        lock.lock();
        handle_events(events);
        changed_.notify_all();
    } while (running_);
}

/// The thread is woken by the first, clients connect by the second, and those that are connected
/// follow.
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

void SimulatedManager::handle_events(const std::vector<pollfd>& events) {
    auto event = events.begin() + 2;
    for (Client& client : clients_) {
        const int happened = (event++)->revents;
        if (happened & POLLOUT) flush(client);
        if (!reading_ || (happened & ~POLLOUT) == 0 || receive_from(client)) continue;
        client.left = true;
        if (!client.closing) client.closing = Ending::Orderly;
    }
    send_due_answers();
    eventfd_t ignored = 0;
    if (events[0].revents != 0) eventfd_read(wake_.get(), &ignored);
    // A client that waits to be accepted would see a reset.
    const bool ends_orderly = !running_ && ending_ == Ending::Orderly;
    if (ends_orderly) shutdown(listener_.get(), SHUT_RDWR);
    if (ends_orderly || events[1].revents != 0) accept_clients();
    if (!running_) begin_to_close(ending_);
    remove_closing_clients();
}

void SimulatedManager::accept_clients() {
    while (true) {
        FileDescriptor connection = listener_.accept();
        if (!connection.valid()) return;
        clients_.push_back({++last_client_, std::move(connection)});
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
        for (auto task = pending_.begin(); task != pending_.end();) {
            task = task->second.second == number ? pending_.erase(task) : std::next(task);
        }
        client = clients_.erase(client);
        note(number, kind);
    }
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
    const std::size_t max = max_packet_size(client.connection.get());
    if (text.size() > max) {
        throw ManagerError("a packet of " + std::to_string(text.size()) +
                           " bytes is larger than the system allows to send, which is " +
                           std::to_string(max) + " (see net.core.wmem_max)");
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
        replies_.push_back(
            {reply->transaction, reply->status, packet.time - task->second.first, packet});
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
