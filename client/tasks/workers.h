// SPDX-License-Identifier: Apache-2.0
// The threads that run tasks. Each runs one task at a time, and a task never waits for another: it
// is handed to an idle worker if there is one, else a new one starts.
//
// A worker whose task has run ends, or becomes idle if that is allowed: until the next task, until
// 10 s are over or until fewer may be idle.

#pragma once

#include <condition_variable>
#include <optional>

#include "client/IVexaClient.h"
#include "client/tasks/task.h"

// How an idle worker is called. Held by it and by whoever calls it, who may be the last to let go.
struct IdleWorker {
    std::condition_variable called;
    bool is_idle GUARDED_BY(gWorkersMutex) = false;  // stands in gIdleWorkers
    std::optional<Task> task GUARDED_BY(gWorkersMutex) = std::nullopt;
};

// Has the task begin on a thread of its own. Throws std::system_error with the text "thread
// constructor failed" if a thread has to be started and cannot be: the task is dropped, and the
// queues of its arguments are the caller's to release.
void start_task(Task task) EXCLUDES(gWorkersMutex);

// Allows `most` workers to be idle from now on, 64 if it is more. Those beyond that end.
void allow_idle_workers(int most) EXCLUDES(gWorkersMutex);
