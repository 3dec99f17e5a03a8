// SPDX-License-Identifier: Apache-2.0
#include "client/tasks/workers.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <new>
#include <utility>

#include "client/queries/query.h"
#include "client/utility/threads.h"

namespace {

constexpr std::chrono::seconds kIdleTime{10};
constexpr int kMostIdle = 64;

void lock_before_fork() NO_THREAD_SAFETY_ANALYSIS {
    gWorkersMutex.lock();
}

void unlock_in_parent() NO_THREAD_SAFETY_ANALYSIS {
    gWorkersMutex.unlock();
}

// No worker but the one that may have forked is in the child process.
void forget_in_child() NO_THREAD_SAFETY_ANALYSIS {
    gMostIdleWorkers = 0;
    gIdleWorkers.clear();
    gWorkersMutex.unlock();
}

[[maybe_unused]] const int kForkHandled =
    ::pthread_atfork(lock_before_fork, unlock_in_parent, forget_in_child);

// Waits among the idle workers. Returns nothing if the worker has to end.
std::optional<Task> await_task(const std::shared_ptr<IdleWorker>& self) NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(gWorkersMutex);
    if (gIdleWorkers.size() >= gMostIdleWorkers) return std::nullopt;
    gIdleWorkers.push_back(self);
    self->is_idle = true;
    self->called.wait_for(lock, kIdleTime,
                          [&self]() NO_THREAD_SAFETY_ANALYSIS { return !self->is_idle; });
    if (self->is_idle) {
        gIdleWorkers.erase(std::find(gIdleWorkers.begin(), gIdleWorkers.end(), self));
        return std::nullopt;
    }
    return std::exchange(self->task, std::nullopt);
}

// Body of a worker.
void work(Task task) {
    run_task(std::move(task));
    if (gMostIdleWorkers == 0) return;
    try {
        const auto self = std::make_shared<IdleWorker>();
        while (std::optional<Task> next = await_task(self)) {
            set_query_outcome(VEXA_QUERY_NOT_SENT);  // nothing of the task before is seen
            errno = 0;
            run_task(std::move(*next));
        }
    } catch (const std::bad_alloc&) {  // the next task starts a thread
    }
}

// Moves `task` to the worker that became idle last and so is the most likely to have its stack in a
// cache. Returns whether there was one. It is called when it can take the lock at once.
bool hand_over(Task* task) EXCLUDES(gWorkersMutex) {
    if (gMostIdleWorkers == 0) return false;
    std::shared_ptr<IdleWorker> worker;
    {
        std::lock_guard<std::mutex> lock(gWorkersMutex);
        if (gIdleWorkers.empty()) return false;
        worker = std::move(gIdleWorkers.back());
        gIdleWorkers.pop_back();
        worker->is_idle = false;
        worker->task = std::move(*task);
    }
    worker->called.notify_one();
    return true;
}

}  // namespace

void start_task(Task task) {
    if (hand_over(&task)) return;
    start_thread([task = std::move(task)]() mutable { work(std::move(task)); });
}

void allow_idle_workers(int most) {
    std::lock_guard<std::mutex> lock(gWorkersMutex);
    gMostIdleWorkers = static_cast<std::size_t>(std::clamp(most, 0, kMostIdle));
    gIdleWorkers.reserve(gMostIdleWorkers);  // so that becoming idle takes no memory
    while (gIdleWorkers.size() > gMostIdleWorkers) {
        const std::shared_ptr<IdleWorker> worker = std::move(gIdleWorkers.back());
        gIdleWorkers.pop_back();
        worker->is_idle = false;
        worker->called.notify_one();
    }
}
