#include "manager/Manager.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "manager/packet_socket.h"

namespace manager {
namespace {

// Keeps a deadline within the range of the clock.
constexpr SimulatedManager::Timeout kMaxTimeout = std::chrono::hours(24);

}  // namespace

SimulatedManager::SimulatedManager(std::string path)
    : path_(std::move(path)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SimulatedManager::~SimulatedManager() {
    stop();
}

void SimulatedManager::start() {
    const std::lock_guard lifecycle(lifecycle_mutex_);
    if (thread_.joinable()) return;
    listener_ = listen_at(path_);
    {
        const Lock lock(mutex_);
        running_ = true;
        answers_.forget_services();
    }
    thread_ = std::thread([this] { serve(); });
}

void SimulatedManager::stop() {
    const std::lock_guard lifecycle(lifecycle_mutex_);
    if (!thread_.joinable()) return;
    {
        const Lock lock(mutex_);
        running_ = false;
        for (Client& client : clients_) client.closing = true;
    }
    changed_.notify_all();
    // Removed while it is still ours: once we no longer listen, another Manager may take the path.
    unlink(path_.c_str());
    wake_thread();
    thread_.join();
    listener_ = FileDescriptor();
}

void SimulatedManager::set_observer(PacketObserver on_packet, ConnectionObserver on_connection) {
    const Lock lock(mutex_);
    on_packet_ = std::move(on_packet);
    on_connection_ = std::move(on_connection);
}

void SimulatedManager::send(int number, const std::string& text) {
    const Lock lock(mutex_);
    Client* const client = find_client(number);
    if (client == nullptr) {
        throw ManagerError("client " + std::to_string(number) + " is not connected");
    }
    deliver(*client, text);
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

void SimulatedManager::close_clients() {
    Lock lock(mutex_);
    for (Client& client : clients_) client.closing = true;
    wake_thread();
    const int last = last_client_;
    changed_.wait(lock, [&] { return clients_.empty() || clients_.front().number > last; });
}

void SimulatedManager::refuse(Step step, std::optional<Opcode> opcode) {
    const Lock lock(mutex_);
    answers_.refuse(step, opcode);
}

void SimulatedManager::accept(Step step, std::optional<Opcode> opcode) {
    const Lock lock(mutex_);
    answers_.accept(step, opcode);
}

void SimulatedManager::set_silent(Step step, bool silent) {
    const Lock lock(mutex_);
    answers_.set_silent(step, silent);
}

template <typename Done>
bool SimulatedManager::wait(Lock& lock, Timeout timeout, Done done) {
    bool reached = false;
    changed_.wait_until(lock, Clock::now() + std::min(timeout, kMaxTimeout), [&] {
        reached = done();
        return reached || !running_;
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
        const bool connected = std::any_of(clients_.begin(), clients_.end(),
                                           [&](const Client& c) { return c.number == client; });
        return client <= last_client_ && !connected;
    });
}

std::vector<int> SimulatedManager::clients() const {
    const Lock lock(mutex_);
    std::vector<int> numbers;
    for (const Client& client : clients_) numbers.push_back(client.number);
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

std::int64_t SimulatedManager::start_session(std::int64_t session,
                                             const std::vector<Target>& targets) {
    const Lock lock(mutex_);
    const auto groups = by_client(targets);
    const std::int64_t transaction = ++last_transaction_;
    for (const auto& [client, own] : groups) {
        deliver(*find_client(client), start_session_message(session, transaction, own));
    }
    return transaction;
}

void SimulatedManager::ready_session(std::int64_t session, const std::vector<Target>& targets) {
    const Lock lock(mutex_);
    for (const auto& [client, own] : by_client(targets)) {
        deliver(*find_client(client), ready_session_message(session, own));
    }
}

std::int64_t SimulatedManager::exec_task(const Task& task) {
    const Clock::time_point sent = Clock::now();
    const std::int64_t transaction = ++last_transaction_;
    const std::string text = exec_task_message(task, transaction);
    const Lock lock(mutex_);
    deliver(client_for(task.opcode), text);
    pending_tasks_.emplace(transaction, sent);
    return transaction;
}

template <typename Wanted>
std::optional<Reply> SimulatedManager::take_reply(Timeout timeout, Wanted wanted) {
    Lock lock(mutex_);
    auto reply = replies_.end();
    const bool found = wait(lock, timeout, [&] {
        reply = std::find_if(replies_.begin(), replies_.end(), wanted);
        return reply != replies_.end();
    });
    if (!found) return std::nullopt;
    Reply taken = std::move(*reply);
    replies_.erase(reply);
    return taken;
}

std::optional<Reply> SimulatedManager::await_reply(std::int64_t transaction, Timeout timeout) {
    return take_reply(timeout, [&](const Reply& r) { return r.transaction == transaction; });
}

std::optional<Reply> SimulatedManager::await_any_reply(Timeout timeout) {
    return take_reply(timeout, [](const Reply&) { return true; });
}

}  // namespace manager
