// SPDX-License-Identifier: Apache-2.0
#include "client/queries/query.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <system_error>

#include "client/utility/json_access.h"

namespace {

constexpr std::chrono::seconds kAnswerLimit{3};

timespec to_timespec(std::chrono::steady_clock::time_point time) {
    const auto since_start = time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_start);
    const std::chrono::nanoseconds rest = since_start - seconds;
    return {static_cast<std::time_t>(seconds.count()), static_cast<long>(rest.count())};
}

thread_local vexa_query_outcome_t tOutcome = VEXA_QUERY_NOT_SENT;

}  // namespace

void set_query_outcome(vexa_query_outcome_t outcome) {
    tOutcome = outcome;
}

vexa_query_outcome_t vexa_query_outcome() {
    return tOutcome;
}

std::uint32_t next_query_id() {
    std::lock_guard<std::mutex> lock(gQueryIdMutex);
    if (gQueryId == UINT32_MAX) {
        log_line(kAlways, "query id have reached the maximum.");
        gQueryId = 0;  // never given out
    }
    return ++gQueryId;
}

bool query_id_validation(const Json::Value& message, unsigned int& query_id) {
    const Json::Value& id = member(message, "QueryId");
    if (!id.isUInt()) return false;
    query_id = id.asUInt();
    return query_id != 0;
}

// std::condition_variable::wait_until() is not used because one of the standard libraries does not
// report that the wait failed, so that the caller would spin.
void await_query_answer(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                        const bool& done) {
    const timespec deadline = to_timespec(std::chrono::steady_clock::now() + kAnswerLimit);
    while (!done) {
        const int error = ::pthread_cond_clockwait(
            cv.native_handle(), lock.mutex()->native_handle(), CLOCK_MONOTONIC, &deadline);
        if (error == ETIMEDOUT) return;
        if (error != 0) {
            throw std::system_error(error, std::generic_category(),
                                    "condition_variable timed_wait failed");
        }
    }
}
