// What the parts of the service process share. For any thread.

#pragma once

#include <vexon2_0.h>

#include "contract.h"

namespace soak {

extern Shared& gShared;

// Registers a service and declares it ready. Returns 0 or what the library did.
int offer(std::uint32_t id, const Service& service, vexa_state_callback_t on_state, void* user_data,
          vexon_exec_callback_t on_task);

// Calls the library at random from several threads until it is ordered to finish.
void take_chances(unsigned long seed);

}  // namespace soak
