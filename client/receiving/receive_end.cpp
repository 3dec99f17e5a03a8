// SPDX-License-Identifier: Apache-2.0
#include "client/receiving/receive_end.h"

#include <exception>
#include <mutex>

#include "client/link/life.h"
#include "client/utility/logging.h"

namespace {

// The observer in whose call this thread is.
thread_local const ReceiveEndObserver* tCalled = nullptr;

// Counts a call under way from the moment at which the observer is looked up.
class ObserverCall {
  public:
    ObserverCall(Life life, vexa_receive_end_t reason) : reason_(reason) {
        std::lock_guard<std::mutex> lock(gReceiveEndMutex);
        // Decided under the lock under which an observer is replaced: one that was set after the
        // end of this life must not take its cause for one that calls for something.
        if (is_over(life) && reason != VEXA_RECEIVE_END_CLOSED) {
            reason_ = VEXA_RECEIVE_END_DISCONNECTED;
        }
        observer_ = gReceiveEndObserver;
        ++observer_->calls_under_way;
        tCalled = observer_.get();
    }

    ~ObserverCall() {
        std::lock_guard<std::mutex> lock(gReceiveEndMutex);
        tCalled = nullptr;
        --observer_->calls_under_way;
        gReceiveEndReturned.notify_all();
    }

    ObserverCall(const ObserverCall&) = delete;
    ObserverCall& operator=(const ObserverCall&) = delete;

    void run() const {
        if (observer_->callback != nullptr) observer_->callback(reason_, observer_->user_data);
    }

  private:
    vexa_receive_end_t reason_;
    std::shared_ptr<ReceiveEndObserver> observer_;
};

}  // namespace

void tell_receive_end(Life life, vexa_receive_end_t reason) {
    const ObserverCall call(life, reason);
    try {
        call.run();
    } catch (const std::exception& error) {
        log_line(kFailure, "Failed to tell that nobody receives any more (%s)", error.what());
    }
}

void vexa_svc_on_receive_end(vexa_receive_end_callback_t callback,
                             void* user_data) NO_THREAD_SAFETY_ANALYSIS {
    auto observer = std::make_shared<ReceiveEndObserver>();
    observer->callback = callback;
    observer->user_data = user_data;

    std::unique_lock<std::mutex> lock(gReceiveEndMutex);
    gReceiveEndObserver.swap(observer);
    if (must_not_wait() && tCalled == nullptr) return;  // the call may wait for this very callback
    const int own_calls = tCalled == observer.get() ? 1 : 0;
    gReceiveEndReturned.wait(lock, [&] { return observer->calls_under_way == own_calls; });
}
