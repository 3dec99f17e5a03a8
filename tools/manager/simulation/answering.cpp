// The parts of SimulatedManager that answer requests.

#include "manager/simulation/Manager.h"

namespace manager {

void SimulatedManager::set_answering(
    bool answering, const std::function<void(const std::vector<int>& clients)>& at_once) {
    const Lock lock(mutex_);
    answering_ = answering;
    if (!answering) delayed_.clear();
    if (at_once) at_once(client_numbers());
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
