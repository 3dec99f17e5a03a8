// SPDX-License-Identifier: Apache-2.0
// Acknowledgements: "AUTH", "REGS" and "REDY", the Manager's verdicts, for which callers wait.

#pragma once

#include <json/json.h>

#include "client/IVexaClient.h"
#include "client/link/after_message.h"

AfterMessage on_auth(const Json::Value& message);
AfterMessage on_regs(const Json::Value& message);
AfterMessage on_redy(const Json::Value& message);

// Returns a waiter record that nobody has answered yet.
template <class Waiter>
Waiter make_waiter() {
    Waiter waiter;
    waiter.result = std::make_shared<std::int32_t>(1);
    waiter.cv = std::make_shared<std::condition_variable>();
    waiter.done = std::make_shared<bool>(false);
    return waiter;
}

// Waits without time limit until `waiter` is answered, and returns the result. Returns -1 when
// `life` is over or has no receive thread that could take an answer.
std::int32_t await_acknowledgement(const waiter_meta_data<std::int32_t>& waiter,
                                   AcknowledgementWaits& waits, Life life) EXCLUDES(waits.mutex);

// The verdict for those who will get none.
constexpr std::int32_t kNotAnswered = -1;
