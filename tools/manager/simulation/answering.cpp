// The parts of SimulatedManager that answer requests.

#include <algorithm>

#include "manager/base/durations.h"
#include "manager/simulation/Manager.h"

namespace manager {

void SimulatedManager::refuse(Step step, std::optional<Opcode> opcode) {
    const Lock lock(mutex_);
    answers_.refuse(step, opcode);
}

void SimulatedManager::accept(Step step, std::optional<Opcode> opcode) {
    const Lock lock(mutex_);
    answers_.accept(step, opcode);
}

void SimulatedManager::set_delay(Step step, std::chrono::milliseconds delay) {
    const Lock lock(mutex_);
    answers_.set_delay(step, std::min(delay, kMaxDuration));
}

void SimulatedManager::set_drop(Step step, bool drop) {
    const Lock lock(mutex_);
    answers_.set_drop(step, drop);
}

void SimulatedManager::set_twice(Step step, bool twice) {
    const Lock lock(mutex_);
    answers_.set_twice(step, twice);
}

void SimulatedManager::set_answering(
    bool answering, const std::function<void(const std::vector<int>& clients)>& at_once) {
    const Lock lock(mutex_);
    answering_ = answering;
    if (!answering) delayed_.clear();
    if (at_once) at_once(client_numbers());
}

void SimulatedManager::grant(const std::string& permission) {
    const Lock lock(mutex_);
    answers_.grant(permission);
}

void SimulatedManager::deny(const std::string& permission) {
    const Lock lock(mutex_);
    answers_.deny(permission);
}

void SimulatedManager::set_info(const std::string& name, const std::string& text) {
    const Lock lock(mutex_);
    answers_.set_info(name, text);
}

void SimulatedManager::answer(ConnectedClient& client, const Request& request) {
    if (request.step == Step::Auth && request.opcode && !answers_.refuses(request)) {
        routes_.add(*request.opcode, client.number);
    }
    if (!answering_) return;
    const auto answer = answers_.answer(request);
    if (!answer) return;
    for (int i = 0; i < answer->times; ++i) {
        if (answer->delay.count() > 0) {
            delayed_.add(Clock::now() + answer->delay, {client.number, answer->text});
        } else {
            enqueue(client, answer->text);
        }
    }
}

void SimulatedManager::send_due_answers() {
    for (const auto& [number, text] : delayed_.take_due(Clock::now())) {
        ConnectedClient* const client = find_client(number);
        if (client != nullptr) enqueue(*client, text);
    }
}

}  // namespace manager
