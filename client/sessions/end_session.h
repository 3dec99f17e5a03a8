// SPDX-License-Identifier: Apache-2.0
// "end_session": ends services of a session, or all of it. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"
#include "vexon2_0.h"

// "end_session"
AfterMessage on_end_session(const Json::Value& message);

// Ends the services of a session that `request` names, or all of them if it names none, and tells
// the Manager. A named service whose callback refuses stays. Returns 0 if at least one service has
// ended, else -1. Runs on the receive thread.
VEXON_API int handle_session_end(const Json::Value& request);
