// SPDX-License-Identifier: Apache-2.0
// The one way out. Each message is one packet.

#pragma once

#include "client/link/life.h"

// As vexa_send_to_manager_raw(), but fails if `life` is over.
int send_in_life(const char* msg, Life life) EXCLUDES(gSendMutex);

// Sends one packet, again if a signal interrupts that. Returns whether it was sent; if not, errno
// says why.
bool send_packet(int fd, const char* msg, int flags);

void log_sending(const char* msg);

// Returns -1.
int log_not_sent();
