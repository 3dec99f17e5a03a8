// "exec_task": from the message to the service's function, which runs on a thread of its own.

#pragma once

#include <json/json.h>

#include "client/IVexaClient.h"
#include "client/link/after_message.h"

AfterMessage on_exec_task(const Json::Value& message);

// Decodes the task that `request` describes and starts `task` on a detached thread, which then
// sends the reply. Returns 0 if the thread was started; -1, with a log line, if the session is not
// ready for the task or the task cannot be decoded: the Manager then gets no reply. Throws
// std::system_error ("thread constructor failed") if no thread can be started. Runs on the receive
// thread.
VEXON_API int handle_exec_task(const Json::Value& request, vexon_exec_callback_t task)
    REQUIRES(gReadyMutex);

// What a task's thread does: runs `task`, releases its arguments, sends the reply and frees `call`.
// A reply is sent in the life of the connection in which its task came, and lost in any other.
void calling_wrapper(_vexon_call_info_t* call, vexon_exec_callback_t task,
                     vexon_func_call_info_t args);
