#include "manager/simulation/Manager.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "manager/base/durations.h"

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
        answers_.count_services_from(last_service);
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

void SimulatedManager::set_observer(PacketObserver on_packet, ConnectionObserver on_connection) {
    const Lock lock(mutex_);
    on_packet_ = std::move(on_packet);
    on_connection_ = std::move(on_connection);
}

void SimulatedManager::send(int number, const std::string& text) {
    const Lock lock(mutex_);
    ConnectedClient* const client = find_client(number);
    if (client == nullptr) {
        throw ManagerError("client " + std::to_string(number) + " is not connected");
    }
    deliver(*client, text);
}

std::size_t SimulatedManager::send_to_all(const std::string& text) {
    const Lock lock(mutex_);
    std::size_t count = 0;
    for (ConnectedClient& client : clients_) {
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
    for (ConnectedClient& client : clients_) {
        if (client.closing) continue;
        client.closing = true;
        client.ending = ending;
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

template <typename Done>
bool SimulatedManager::wait(Lock& lock, Timeout timeout, Done done) {
    bool reached = false;
    changed_.wait_until(lock, Clock::now() + std::min(timeout, kMaxDuration), [&] {
        reached = done();
        return reached || !running_ || !waiting_;
    });
    return reached;
}

std::optional<Packet> SimulatedManager::expect(const Matcher& matcher, Timeout timeout) {
    Lock lock(mutex_);
    std::optional<Packet> found;
    std::size_t next = 0;
    wait(lock, timeout, [&] {
        found = log_.take(matcher, next);
        return found.has_value();
    });
    return found;
}

bool SimulatedManager::wait_for_clients(std::size_t count, Timeout timeout) {
    Lock lock(mutex_);
    return wait(lock, timeout, [&] { return clients_.size() == count; });
}

bool SimulatedManager::wait_for_disconnect(int client, Timeout timeout) {
    Lock lock(mutex_);
    return wait(lock, timeout, [&] {
        const bool connected =
            std::any_of(clients_.begin(), clients_.end(),
                        [&](const ConnectedClient& c) { return c.number == client; });
        return client <= last_client_ && !connected;
    });
}

bool SimulatedManager::wait_until(const std::function<bool()>& done, Timeout timeout) {
    Lock lock(mutex_);
    return wait(lock, timeout, done);
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
    for (const ConnectedClient& client : clients_) numbers.push_back(client.number);
    return numbers;
}

std::vector<Packet> SimulatedManager::log() const {
    const Lock lock(mutex_);
    return log_.all();
}

std::vector<Packet> SimulatedManager::received() const {
    const Lock lock(mutex_);
    return log_.received();
}

std::vector<Packet> SimulatedManager::unexpected() const {
    const Lock lock(mutex_);
    return log_.untaken();
}

std::optional<Reply> SimulatedManager::await_reply(std::optional<std::int64_t> transaction,
                                                   Timeout timeout) {
    Lock lock(mutex_);
    std::optional<Reply> reply;
    wait(lock, timeout, [&] {
        reply = replies_.take(transaction);
        return reply.has_value();
    });
    return reply;
}

}  // namespace manager
