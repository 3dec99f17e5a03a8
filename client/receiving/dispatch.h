// SPDX-License-Identifier: Apache-2.0
// From the "req_type" of a message to its handler.

#pragma once

#include <json/json.h>

#include "client/link/after_message.h"

// Handles one message. Throws nothing: what a message makes fail is logged, and the message is
// dropped. Runs on the receive thread.
AfterMessage dispatch_message(const Json::Value& message);
