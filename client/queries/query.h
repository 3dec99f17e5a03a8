// SPDX-License-Identifier: Apache-2.0
// What permission queries and information queries share: the query id, the wait of the caller and
// the way of the answer to it. A query runs on its caller's thread, its answer comes on the receive
// thread; the table's mutex guards the entries and what they point to.

#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "client/link/life.h"
#include "client/utility/logging.h"

// A table of waiting queries and its lock.
template <class Waiter>
struct QueryTable {
    std::mutex& mutex;
    std::map<std::uint32_t, Waiter>& waiters GUARDED_BY(mutex);
};

// Returns the next query id: 1, 2, ... 4294967295, 1, ...
std::uint32_t next_query_id() EXCLUDES(gQueryIdMutex);

// Reads "QueryId" into `query_id`. Returns whether it is an unsigned integer other than 0.
bool query_id_validation(const Json::Value& message, unsigned int& query_id);

// Waits until `done` or until 3 s have passed on the monotonic clock. Throws std::system_error
// ("condition_variable timed_wait failed") if the wait fails for another reason.
void await_query_answer(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                        const bool& done);

// Keeps what vexa_query_outcome() tells the calling thread.
void set_query_outcome(vexa_query_outcome_t outcome);

// One query that waits for its answer. Its entry stands in the table as long as it lives.
template <class Waiter>
class PendingQuery {
  public:
    PendingQuery(const QueryTable<Waiter>& table, std::uint32_t id) : table_(table), id_(id) {
        using Result = typename decltype(waiter_.result)::element_type;
        waiter_.result = std::make_shared<Result>();
        waiter_.cv = std::make_shared<std::condition_variable>();
        waiter_.done = std::make_shared<bool>(false);
        std::lock_guard<std::mutex> lock(table_.mutex);
        table_.waiters.insert({id_, waiter_});
    }

    ~PendingQuery() {
        std::lock_guard<std::mutex> lock(table_.mutex);
        table_.waiters.erase(id_);
    }

    PendingQuery(const PendingQuery&) = delete;
    PendingQuery& operator=(const PendingQuery&) = delete;

    // Returns the answer, an empty one if none has come in time. Does not wait in a state callback,
    // to whose thread the answer would have to come.
    auto await() NO_THREAD_SAFETY_ANALYSIS {
        std::unique_lock<std::mutex> lock(table_.mutex);
        if (!must_not_wait()) await_query_answer(lock, *waiter_.cv, *waiter_.done);
        set_query_outcome(*waiter_.done ? VEXA_QUERY_ANSWERED : VEXA_QUERY_NO_ANSWER);
        *waiter_.done = false;
        return *waiter_.result;
    }

  private:
    const QueryTable<Waiter> table_;
    const std::uint32_t id_;
    Waiter waiter_;
};

// Answers the query `id` with what `read` returns; does nothing if it waits no longer. If `read`
// throws, the query has not been answered.
template <class Waiter, class Read>
void answer_query(const QueryTable<Waiter>& table, std::uint32_t id, Read read) {
    std::lock_guard<std::mutex> lock(table.mutex);
    const auto entry = table.waiters.find(id);
    if (entry == table.waiters.end()) return;
    const Waiter& waiter = entry->second;
    if (waiter.result == nullptr) {
        log_line(kFailure, "response is a null pointer");
    } else {
        *waiter.result = read();
    }
    *waiter.done = true;
    if (waiter.cv != nullptr) waiter.cv->notify_one();
}
