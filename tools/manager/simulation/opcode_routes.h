#pragma once

#include <optional>
#include <vector>

#include "manager/simulation/messages.h"

namespace manager {

/// Remembers which client serves which opcode. Not thread-safe: its owner locks.
class OpcodeRoutes {
  public:
    /// The client that was added last for an opcode serves it.
    void add(Opcode opcode, int client) { routes_.push_back({opcode, client}); }
    void remove_client(int client);
    std::optional<int> find(Opcode opcode) const;

  private:
    struct Route {
        Opcode opcode;
        int client;
    };
    std::vector<Route> routes_;
};

}  // namespace manager
