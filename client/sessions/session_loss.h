// SPDX-License-Identifier: Apache-2.0
// The end of all sessions when the Manager is lost: terminate_sessions().

#pragma once

#include "client/sessions/sessions.h"

struct EndCounts {
    int ended = 0;
    int failed = 0;
};

// Tells a service that its session ends, logs its answer and counts it. Returns whether it agreed.
bool inform_session_ended(std::uint32_t session_id, ServiceKey service,
                          const StateCallback& callback, EndCounts* counts)
    REQUIRES(gSessionsMutex);

void log_ended(std::uint32_t session_id, const EndCounts& counts);

// Tells the service of the lowest opcode that the Manager is there again. Returns what its callback
// answered, and 0 if no service is ready.
VEXON_API int send_reconnection_notification();
