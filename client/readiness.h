#pragma once

#include <cstdint>

#include "client/IVexaClient.h"

// Returns 0 if `service_id` is the one of this process, -3 if the process has none, else -2.
int check_service_id(std::uint32_t service_id) EXCLUDES(gClientMutex);
