// SPDX-License-Identifier: Apache-2.0
// The arguments of a task: from its "func" object to the two queues. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include "vexon2_0.h"

// Decodes the "func" object of a task into `info`, a fresh record. Returns 0, or -1 with a log
// line; what was decoded before the failure stays in the queues. Runs on the receive thread.
VEXON_API int AddParamsToQueues(const Json::Value& request, vexon_func_call_info_t* info);
