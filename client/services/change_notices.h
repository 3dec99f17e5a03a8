// SPDX-License-Identifier: Apache-2.0
// "permission_change", "state_change" and "system_setting_change": notices to all services that are
// ready, in ascending order of their opcodes.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"

AfterMessage on_permission_change(const Json::Value& message);
AfterMessage on_state_change(const Json::Value& message);
AfterMessage on_system_setting_change(const Json::Value& message);

// Returns whether the caller runs inside a notice, and logs that `function` cannot be called there:
// the services are locked.
bool refused_in_notice(const char* function);
