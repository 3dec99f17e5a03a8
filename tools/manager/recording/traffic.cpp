#include "manager/recording/traffic.h"

#include "manager/base/json.h"

namespace manager {

void Traffic::follow(SimulatedManager& manager, Console& console) {
    manager.set_observer(
        [this, &console](const Packet& packet) {
            console.packet(packet);
            recorder.add(packet);
            events.add(packet);
            const auto message = parse_json(packet.text);
            if (message) calls.add(packet, *message);
            for (const std::string& fault : services.add(packet, message)) {
                console.fault(packet.client, fault);
                ++faults;
            }
        },
        [this, &console](const ConnectionChange& change) {
            console.connection(change);
            recorder.add(change);
            events.add(change);
            services.add(change);
        });
}

}  // namespace manager
