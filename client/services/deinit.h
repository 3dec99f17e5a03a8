// SPDX-License-Identifier: Apache-2.0
// vexa_svc_deinit(), and what is forgotten at the end of a life, whoever ends it.

#pragma once

#include "client/IVexaClient.h"

// Forgets the registrations that wait for their acknowledgement and the callbacks of services.
void forget_registrations() EXCLUDES(gAuthMutex, gReadyMutex);
