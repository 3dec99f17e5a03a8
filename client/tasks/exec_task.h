// SPDX-License-Identifier: Apache-2.0
// "exec_task": from the message to the service's function, which runs on a worker.

#pragma once

#include <json/json.h>

#include "client/IVexaClient.h"
#include "client/link/after_message.h"

AfterMessage on_exec_task(const Json::Value& message);

// Decodes the task that `request` describes and has `task` begin on a thread of its own, which then
// sends the reply. Returns 0 if it begins; -1, with a log line, if the session is not ready for the
// task or the task cannot be decoded: the Manager then gets no reply. Throws std::system_error
// ("thread constructor failed") if a thread is needed and cannot be started. Runs on the receive
// thread.
VEXON_API int handle_exec_task(const Json::Value& request, vexon_exec_callback_t task)
    REQUIRES(gReadyMutex);
