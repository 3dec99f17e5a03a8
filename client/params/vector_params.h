// SPDX-License-Identifier: Apache-2.0
// Arguments and members that are vectors. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include "vexon2_0.h"

// Decodes one vector argument and stores it in the queues of `info` under `id`. Returns 0, also
// when the elements are of a type that is not stored, or -1 with a log line. The second argument
// has no use. Runs on the receive thread.
VEXON_API int AddVectorParams(const Json::Value& arg, int, int id, vexon_func_call_info_t* info);
