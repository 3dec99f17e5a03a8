// SPDX-License-Identifier: Apache-2.0
// "start_session": asks the services whether they take part. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"
#include "vexon2_0.h"

// "start_session"
AfterMessage on_start_session(const Json::Value& message);

// Asks the services that `request` names to start a session and tells the Manager which of them
// do. Returns 0 if at least one does, else -1. Runs on the receive thread.
VEXON_API int handle_session_start(const Json::Value& request);
