// SPDX-License-Identifier: Apache-2.0
// "INIT": vexa_svc_init(), which asks for the service id, and the Manager's answer to it.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"

// Stores the service id and wakes vexa_svc_init(). Runs on the receive thread.
AfterMessage on_init(const Json::Value& message);
