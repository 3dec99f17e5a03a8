#include "manager/recording/traffic.h"

#include "manager/base/json.h"

namespace manager {

void Traffic::follow(SimulatedManager& manager, Console& console) {
    manager.set_observer(
        [this, &console](const Packet& packet) {
            const auto message = parse_json(packet.text);
            show(packet, message, console);
            recorder.add(packet);
            pictured.add(packet);
            events.add(packet);
            if (message) calls.add(packet, *message);
            for (const std::string& fault : services.add(packet, message)) {
                console.fault(packet.client, fault);
                ++faults;
            }
        },
        [this, &console](const ConnectionChange& change) {
            console.connection(change);
            recorder.add(change);
            pictured.add(change);
            events.add(change);
            services.add(change);
        });
}

void Traffic::watch(std::optional<Filter> filter) {
    const std::lock_guard lock(mutex_);
    filter_ = std::move(filter);
}

void Traffic::show(const Packet& packet, const std::optional<Json::Value>& message,
                   Console& console) {
    const std::lock_guard lock(mutex_);
    if (!filter_) return console.packet(packet);
    const Json::Value type = message ? member(*message, "req_type") : Json::Value();
    if (!filter_->type.empty() && type != filter_->type) return;
    if (filter_->client && filter_->client != packet.client) return;
    if (!filter_->service.empty()) {
        const auto service = services.find(filter_->service);
        if (!service || service->client != packet.client) return;
    }
    console.packet(packet, true);
}

}  // namespace manager
