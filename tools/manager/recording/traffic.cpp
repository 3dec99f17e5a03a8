#include "manager/recording/traffic.h"

namespace manager {

void Traffic::follow(SimulatedManager& manager, Console& console) {
    manager.set_observer(
        [this, &console](const Packet& packet) {
            console.packet(packet);
            recorder.add(packet);
            calls.add(packet);
            events.add(packet);
        },
        [this, &console](const ConnectionChange& change) {
            console.connection(change);
            recorder.add(change);
            events.add(change);
        });
}

}  // namespace manager
