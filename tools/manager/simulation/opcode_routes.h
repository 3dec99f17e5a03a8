#pragma once

#include <list>
#include <optional>

#include "manager/simulation/messages.h"

namespace manager {

/// Remembers which client serves which opcode. Not thread-safe: its owner locks.
class OpcodeRoutes {
  public:
    /// The client that was added last for an opcode serves it.
    void add(Opcode opcode, int client) { routes_.push_front({opcode, client}); }
    void remove_client(int client) {
        routes_.remove_if([&](const Route& route) { return route.client == client; });
    }
    std::optional<int> find(Opcode opcode) const {
        for (const Route& route : routes_) {
            if (route.opcode == opcode) return route.client;
        }
        return std::nullopt;
    }

  private:
    struct Route {
        Opcode opcode;
        int client;
    };
    /// The newest first.
    std::list<Route> routes_;
};

}  // namespace manager
