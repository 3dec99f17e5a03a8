// SPDX-License-Identifier: Apache-2.0
#include "manager/recording/traffic.h"

#include "manager/base/json.h"

namespace manager {

void Traffic::follow(SimulatedManager& manager, Console& console) {
    manager.set_observer([this, &console](const Event& event) {
        const auto message = parse_json(event.text);
        show(event, message, console);
        recorder.add(event);
        pictured.add(event);
        if (events) events->push_back(event);
        for (const std::string& fault : services.add(event, message)) {
            console.fault(event.client, fault);
            ++faults;
        }
    });
}

void Traffic::watch(std::optional<Filter> filter) {
    const std::lock_guard lock(mutex_);
    filter_ = std::move(filter);
}

void Traffic::show(const Event& event, const std::optional<Json::Value>& message,
                   Console& console) {
    const std::lock_guard lock(mutex_);
    if (!filter_ || !is_packet(event)) return console.show(event);
    const Json::Value type = message ? member(*message, "req_type") : Json::Value();
    if (!filter_->type.empty() && type != filter_->type) return;
    if (filter_->client && filter_->client != event.client) return;
    if (!filter_->service.empty()) {
        const auto service = services.find(filter_->service);
        if (!service || service->client != event.client) return;
    }
    console.show(event, true);
}

}  // namespace manager
