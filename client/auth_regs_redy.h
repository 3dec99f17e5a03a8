// "AUTH", "REGS" and "REDY": the Manager's verdicts, for which callers wait.

#pragma once

#include "client/IVexaClient.h"
#include "client/dispatch.h"

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

// Waits without time limit until `waiter`, which stands in its table, is answered, and returns the
// result. Returns -1 at once if there is no receive thread that could take an answer.
std::int32_t await_acknowledgement(const waiter_meta_data<std::int32_t>& waiter,
                                   std::mutex& wait_mutex) EXCLUDES(wait_mutex, gInitMutex);

// The verdict for those who will get none.
constexpr std::int32_t kNotAnswered = -1;

// Stores the verdict and wakes the caller that waits for it.
void answer_waiter(const waiter_meta_data<std::int32_t>& waiter, std::int32_t result,
                   std::mutex& wait_mutex) EXCLUDES(wait_mutex);

// Answers all callers whose waiters stand in `table` with -1. The table's lock is held.
template <class Table>
void fail_waiters(const Table& table, std::mutex& wait_mutex) {
    for (const auto& entry : table) answer_waiter(entry.second, kNotAnswered, wait_mutex);
}

// Answers all callers that wait for a verdict with -1, for the receive thread that would have
// received it.
void fail_pending_acknowledgements() EXCLUDES(gAuthMutex, gReadyMutex);
