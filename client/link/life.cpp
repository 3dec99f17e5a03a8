// SPDX-License-Identifier: Apache-2.0
#include "client/link/life.h"

#include <mutex>
#include <utility>

#include "client/utility/logging.h"

namespace {

constexpr Life kAnyLife = 0;  // lives count from 1

thread_local Life tLife = kAnyLife;
thread_local bool tReceives = false;
thread_local bool tInSessionCallback = false;

Life life_now() REQUIRES(gClientMutex) {
    return gLeaving ? kNoLife : gLife.load();
}

void wake(AcknowledgementWaits& waits) EXCLUDES(waits.mutex) {
    std::lock_guard<std::mutex> lock(waits.mutex);
    for (std::condition_variable* const waiting : waits.waiting) waiting->notify_all();
}

}  // namespace

Life life_of_call() {
    std::lock_guard<std::mutex> lock(gClientMutex);
    return life_now();
}

Life life_of_thread() {
    return tLife == kAnyLife ? life_of_call() : tLife;
}

int check_service_id(std::uint32_t service_id, Life* life) {
    std::lock_guard<std::mutex> lock(gClientMutex);
    *life = life_now();
    if (gService_id == -1) return -3;
    return static_cast<std::uint32_t>(gService_id) == service_id ? 0 : -2;
}

bool is_over(Life life) {
    return gLife != life;
}

LifeScope::LifeScope(Life life) : outer_(std::exchange(tLife, life)) {}

LifeScope::~LifeScope() {
    tLife = outer_;
}

bool superseded() {
    return tLife != kAnyLife && is_over(tLife);
}

void become_receive_thread() {
    tReceives = true;
}

SessionCallbackScope::SessionCallbackScope() {
    tInSessionCallback = true;
}

SessionCallbackScope::~SessionCallbackScope() {
    tInSessionCallback = false;
}

bool in_session_callback() {
    return tInSessionCallback;
}

bool must_not_wait() {
    return tReceives || tInSessionCallback;
}

bool refused_where_none_may_wait(const char* function) {
    if (!must_not_wait()) return false;
    log_line(kFailure, "Failed to run %s: it cannot wait for the Manager in a state callback",
             function);
    return true;
}

void stop_receiving(Life life) {
    {
        std::lock_guard<std::mutex> lock(gInitMutex);
        if (is_over(life)) return;
        gReceiving = false;
        init_cv.notify_all();
    }
    wake_waits();
}

void wake_waits() {
    wake(gAuthWaits);
    wake(gReadyWaits);
}
