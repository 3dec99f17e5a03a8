// SPDX-License-Identifier: Apache-2.0
#include "client/tasks/task.h"

#include <exception>
#include <new>
#include <utility>

#include "client/link/life.h"
#include "client/link/send.h"
#include "client/params/queues.h"
#include "client/tasks/task_response.h"
#include "client/utility/logging.h"

namespace {

constexpr std::size_t kLoggedName = 100;

// A service's mistake is answered like any failed task instead of ending the process.
void run_function(_vexon_call_info_t* call, vexon_exec_callback_t function,
                  vexon_func_call_info_t args) {
    char name[kLoggedName + 1];  // the arguments are the function's from here on
    name[args.func_name.copy(name, kLoggedName)] = '\0';
    try {
        function(call, std::move(args));
    } catch (const std::exception& error) {
        log_line(kFailure, "Failed to run function %s (%s)", name, error.what());
        call->func = "-1";
    }
}

// The Manager of a later life has not asked: it may even have given the same numbers to a task of
// its own.
void send_reply(const _vexon_call_info_t& call, Life life) {
    try {
        send_in_life(response_text(call, "").c_str(), life);
    } catch (const std::bad_alloc&) {
        log_line(kFailure, "Out of memory");
    }
}

}  // namespace

vexon_func_call_info_t queues_of(const vexon_func_call_info_t& args) {
    return {{}, 0, args.value_queue, args.type_queue};
}

void run_task(Task task) {
    const vexon_func_call_info_t queues = queues_of(task.args);
    run_function(task.call.get(), task.function, std::move(task.args));
    ClearParamsFromQueues(queues);
    send_reply(*task.call, task.life);
}

void calling_wrapper(_vexon_call_info_t* call, vexon_exec_callback_t task,
                     vexon_func_call_info_t args) {
    run_task({CallRecord(call), task, std::move(args), life_of_thread()});
}
