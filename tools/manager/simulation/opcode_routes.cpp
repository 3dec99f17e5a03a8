#include "manager/simulation/opcode_routes.h"

#include <algorithm>

namespace manager {

void OpcodeRoutes::remove_client(int client) {
    const auto removed = std::remove_if(routes_.begin(), routes_.end(),
                                        [&](const Route& route) { return route.client == client; });
    routes_.erase(removed, routes_.end());
}

std::optional<int> OpcodeRoutes::find(Opcode opcode) const {
    const auto route = std::find_if(routes_.rbegin(), routes_.rend(),
                                    [&](const Route& r) { return r.opcode == opcode; });
    if (route == routes_.rend()) return std::nullopt;
    return route->client;
}

}  // namespace manager
