// SPDX-License-Identifier: Apache-2.0
// "PERMISSION": permissions that a service asks for, and the answers.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"

// "PERMISSION": the answer to vexa_permission_query().
AfterMessage on_permission(const Json::Value& message);
