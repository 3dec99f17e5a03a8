// SPDX-License-Identifier: Apache-2.0
// The reply to a task.

#pragma once

#include <string>

#include "vexon2_0.h"

// Returns the message with which vexa_send_response() answers, and logs how long that took.
std::string response_text(const _vexon_call_info_t& call, const std::string& req_type);
