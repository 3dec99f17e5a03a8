// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/Manager.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <iterator>

namespace manager {

SimulatedManager::SimulatedManager(std::string path)
    : path_(std::move(path)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SimulatedManager::~SimulatedManager() {
    stop();
}

void SimulatedManager::start(std::int64_t last_service) {
    const std::lock_guard lifecycle(lifecycle_mutex_);
    if (thread_.joinable()) return;
    listener_ = ListeningSocket(path_);
    {
        const Lock lock(mutex_);
        running_ = true;
        count_services_from(last_service);
    }
    thread_ = std::thread([this] { serve(); });
}

void SimulatedManager::stop(Ending ending) {
    const std::lock_guard lifecycle(lifecycle_mutex_);
    if (!thread_.joinable()) return;
    {
        const Lock lock(mutex_);
        running_ = false;
        ending_ = ending;
    }
    changed_.notify_all();
    // Removed while it is still ours: once we no longer listen, another Manager may take the path.
    listener_.remove_file();
    wake_thread();
    thread_.join();
    listener_ = ListeningSocket();
}

void SimulatedManager::set_observer(Observer observer) {
    const Lock lock(mutex_);
    observer_ = std::move(observer);
}

void SimulatedManager::send(int number, const std::string& text) {
    const Lock lock(mutex_);
    if (Client* const client = find_client(number)) return deliver(*client, text);
    throw ManagerError("client " + std::to_string(number) + " is not connected");
}

std::size_t SimulatedManager::send_to_all(const std::string& text) {
    const Lock lock(mutex_);
    std::size_t count = 0;
    for (Client& client : clients_) {
        if (client.closing) continue;
        deliver(client, text);
        ++count;
    }
    return count;
}

void SimulatedManager::send_for_opcode(Opcode opcode, const std::string& text) {
    const Lock lock(mutex_);
    deliver(client_for(opcode), text);
}

void SimulatedManager::begin_to_close(Ending ending) {
    for (Client& client : clients_) {
        if (!client.closing) client.closing = ending;
    }
}

void SimulatedManager::close_clients(Ending ending) {
    Lock lock(mutex_);
    begin_to_close(ending);
    wake_thread();
    const int last = last_client_;
    changed_.wait(lock, [&] { return clients_.empty() || clients_.front().number > last; });
}

void SimulatedManager::set_reading(bool reading) {
    const Lock lock(mutex_);
    reading_ = reading;
    wake_thread();
}

void SimulatedManager::set_answering(
    bool answering, const std::function<void(const std::vector<int>& clients)>& at_once) {
    const Lock lock(mutex_);
    answering_ = answering;
    if (!answering) delayed_.clear();
    at_once(client_numbers());
}

bool SimulatedManager::wait_until(const std::function<bool()>& done, Timeout timeout) {
    Lock lock(mutex_);
    bool reached = false;
    changed_.wait_until(lock, Clock::now() + std::min(timeout, kMaxDuration), [&] {
        reached = done();
        return reached || !running_ || !waiting_;
    });
    return reached;
}

std::optional<Packet> SimulatedManager::expect(const Matcher& matcher, Timeout timeout) {
    std::optional<Packet> found;
    // Each packet is looked at once.
    std::size_t next = 0;
    const auto find = [&] {
        for (next = std::max({next, cursor_, first_}); next < first_ + log_.size(); ++next) {
            const Packet& packet = log_[next - first_];
            if (packet.kind != Kind::FromClient || !matcher(packet)) continue;
            cursor_ = next + 1;
            found = packet;
            return true;
        }
        return false;
    };
    wait_until(find, timeout);
    return found;
}

bool SimulatedManager::wait_for_clients(std::size_t count, Timeout timeout) {
    return wait_until([&] { return clients_.size() == count; }, timeout);
}

void SimulatedManager::set_waiting(bool waiting) {
    const Lock lock(mutex_);
    waiting_ = waiting;
    changed_.notify_all();
}

std::vector<int> SimulatedManager::clients() const {
    const Lock lock(mutex_);
    return client_numbers();
}

std::vector<int> SimulatedManager::client_numbers() const {
    std::vector<int> numbers;
    for (const Client& client : clients_) numbers.push_back(client.number);
    return numbers;
}

std::vector<Packet> SimulatedManager::log() const {
    const Lock lock(mutex_);
    return {log_.begin(), log_.end()};
}

std::vector<Packet> SimulatedManager::received() const {
    const Lock lock(mutex_);
    return received_since(first_);
}

std::vector<Packet> SimulatedManager::unexpected() const {
    const Lock lock(mutex_);
    return received_since(std::max(cursor_, first_));
}

std::vector<Packet> SimulatedManager::received_since(std::size_t position) const {
    std::vector<Packet> packets;
    std::copy_if(log_.begin() + static_cast<std::ptrdiff_t>(position - first_), log_.end(),
                 std::back_inserter(packets),
                 [](const Packet& packet) { return packet.kind == Kind::FromClient; });
    return packets;
}

std::optional<Reply> SimulatedManager::await_reply(std::optional<std::int64_t> transaction,
                                                   Timeout timeout) {
    std::optional<Reply> taken;
    const auto take = [&] {
        const auto reply = std::find_if(replies_.begin(), replies_.end(), [&](const Reply& r) {
            return r.transaction == transaction.value_or(r.transaction);
        });
        if (reply == replies_.end()) return transaction && pending_.count(*transaction) == 0;
        taken = std::move(*reply);
        replies_.erase(reply);
        return true;
    };
    wait_until(take, timeout);
    return taken;
}

SimulatedManager::TargetsByClient SimulatedManager::by_client(const std::vector<Target>& targets) {
    TargetsByClient groups;
    for (const Target& target : targets) groups[client_for(target.opcode).number].push_back(target);
    return groups;
}

/// The clients that the end of the whole session is for, without targets.
SimulatedManager::TargetsByClient SimulatedManager::participants(std::int64_t session) const {
    TargetsByClient started, others;
    for (const Client& client : clients_) {
        if (client.closing) continue;
        (client.sessions.count(session) != 0 ? started : others)[client.number];
    }
    return started.empty() ? others : started;
}

std::int64_t SimulatedManager::start_session(std::int64_t session,
                                             const std::vector<Target>& targets) {
    const Lock lock(mutex_);
    const TargetsByClient groups = by_client(targets);
    const std::int64_t transaction = ++last_transaction_;
    for (const auto& [number, own] : groups) {
        Client& client = *find_client(number);
        deliver(client, start_session_message(session, transaction, own));
        client.sessions.insert(session);
    }
    return transaction;
}

void SimulatedManager::ready_session(std::int64_t session, const std::vector<Target>& targets) {
    const Lock lock(mutex_);
    for (const auto& [number, own] : by_client(targets)) {
        deliver(*find_client(number), ready_session_message(session, own));
    }
}

std::int64_t SimulatedManager::end_session(std::int64_t session,
                                           const std::vector<Target>& targets) {
    const Lock lock(mutex_);
    const TargetsByClient groups = targets.empty() ? participants(session) : by_client(targets);
    if (groups.empty()) throw ManagerError("no client is connected");
    const std::int64_t transaction = ++last_transaction_;
    for (const auto& [number, own] : groups) {
        deliver(*find_client(number), end_session_message(session, transaction, own));
    }
    return transaction;
}

std::int64_t SimulatedManager::exec_task(const Task& task) {
    const Clock::time_point sent = Clock::now();
    const std::int64_t transaction = ++last_transaction_;
    const std::string text = exec_task_message(task, transaction);
    const Lock lock(mutex_);
    Client& client = client_for(task.opcode);
    deliver(client, text);
    pending_[transaction] = {sent, client.number};
    return transaction;
}

}  // namespace manager
