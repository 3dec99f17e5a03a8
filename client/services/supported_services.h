// SPDX-License-Identifier: Apache-2.0
// The services for which sessions may be started. Any thread.

#pragma once

#include "client/link/life.h"

// As supported_services_add(), but returns false and adds nothing if `life` is over.
bool add_supported_service(ServiceKey service, Life life) EXCLUDES(gServicesMutex);
