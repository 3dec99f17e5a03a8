// SPDX-License-Identifier: Apache-2.0
// "ready_session": from then on tasks of the session may run. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"

// "ready_session": tells the services that `message` names that the session's tasks may come. The
// Manager gets no answer.
AfterMessage on_ready_session(const Json::Value& message);
