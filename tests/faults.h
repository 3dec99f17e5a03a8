// SPDX-License-Identifier: Apache-2.0
// Failures of the C library on demand. The test program defines these functions itself, so that the
// library under test calls them instead of the real ones, which do the work unless a failure is
// due.

#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>

enum class Call {
    kPthreadCreate,
    kCondClockwait,
    kSocket,
    kSendTo,
    kRecvFrom,
    kCalloc,
    kNew,
    kAnyNew
};

// ThreadSanitizer insists on an operator new of its own.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEXON_OWN_NEW 0
#endif
#endif
#ifndef VEXON_OWN_NEW
#define VEXON_OWN_NEW 1
#endif

constexpr std::size_t kLargeBlock = 100'000;

// Has the next `times` calls, of whichever thread, fail with `error`. For kSendTo and an error of 0
// the call sends all but the last byte; kNew fails for blocks of kLargeBlock or more, on the
// receive thread and where may_fail_here() was called, kAnyNew for blocks of all sizes there.
// Replaces what was demanded of the function before.
void fail(Call call, int error, int times = 1);

// Has kNew fail on this thread too.
void may_fail_here();

// Returns whether all that was demanded has happened.
bool all_failed(Call call);

// Stops one thread before it locks a mutex, which makes rare interleavings certain.
class Gate {
  public:
    explicit Gate(std::mutex& mutex) : mutex_(mutex.native_handle()) {}
    ~Gate() { open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    // Has the calling thread stop before the n-th time that it locks the mutex from now on.
    void stop_me_before_lock(int n = 1);

    bool wait_until_reached() const;
    void open() { open_ = true; }

    // For the function that locks.
    void pass(const pthread_mutex_t* mutex);

  private:
    const pthread_mutex_t* const mutex_;
    int locks_left_ = 0;
    std::atomic<bool> reached_{false};
    std::atomic<bool> open_{false};
};

// Has threads that are created from now on begin only when they are let go.
void hold_new_threads(bool hold);
void let_held_threads_go();

// Puts the monotonic clock forward.
void advance_clock(std::chrono::seconds time);
