// SPDX-License-Identifier: Apache-2.0
// A task, from its decoded message to its reply. Belongs to one thread at a time.

#pragma once

#include "client/IVexaClient.h"
#include "client/tasks/call_record.h"

struct Task {
    CallRecord call;
    vexon_exec_callback_t function;
    vexon_func_call_info_t args;  // whose queues are released when the task has run
    Life life;                    // in which it came
};

// Returns the part of the arguments that has to be released; without the name, so that it costs no
// memory.
vexon_func_call_info_t queues_of(const vexon_func_call_info_t& args);

// Runs the task's function on the calling thread, releases the arguments, sends the reply and frees
// the record. The reply is sent in the task's life, and lost in any other.
void run_task(Task task);

// The same for a task of the life that the caller belongs to.
void calling_wrapper(_vexon_call_info_t* call, vexon_exec_callback_t task,
                     vexon_func_call_info_t args);
