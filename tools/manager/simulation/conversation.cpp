// The parts of SimulatedManager that drive clients through sessions and tasks.

#include "manager/simulation/Manager.h"

namespace manager {

SimulatedManager::TargetsByClient SimulatedManager::by_client(const std::vector<Target>& targets) {
    TargetsByClient groups;
    for (const Target& target : targets) groups[client_for(target.opcode).number].push_back(target);
    return groups;
}

/// The clients that the end of the whole session is for, without targets.
SimulatedManager::TargetsByClient SimulatedManager::participants(std::int64_t session) const {
    TargetsByClient started;
    TargetsByClient all;
    for (const Client& client : clients_) {
        if (client.closing) continue;
        all[client.number];
        if (client.sessions.count(session) != 0) started[client.number];
    }
    return started.empty() ? all : started;
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
    deliver(client_for(task.opcode), text);
    pending_.emplace(transaction, sent);
    return transaction;
}

}  // namespace manager
