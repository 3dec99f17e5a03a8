// SPDX-License-Identifier: Apache-2.0
// The lives of the connection, and which of them a thread or a call belongs to.
//
// A life begins in vexa_svc_init() and ends with the first step of vexa_svc_deinit(), or with a
// later vexa_svc_init() where no de-initialisation could come between. What was begun in one life
// must not act in the next: it keeps the number of its life and compares it where it acts, under a
// lock that whoever ends a life takes too.
//
// May be used from any thread.

#pragma once

#include <cstdint>

#include "client/IVexaClient.h"

// The life of what began while one was being ended: it is over from the start.
constexpr Life kNoLife = UINT64_MAX;

// Returns the life that a call belongs to which begins now, kNoLife while one is being ended.
Life life_of_call() EXCLUDES(gClientMutex);

// Returns the life that the calling thread works for if it does so for one, else as above.
Life life_of_thread() EXCLUDES(gClientMutex);

// Returns 0 if `service_id` is the one of this process, with the call's life in `life`; -3 if the
// process has none, else -2.
int check_service_id(std::uint32_t service_id, Life* life) EXCLUDES(gClientMutex);

// Returns whether `life` has ended. Whoever asks under a lock that vexa_svc_deinit() passes after
// it has ended a life, and is told no, may act under that lock: the life may end meanwhile, but
// nothing of it is cleared and no other begins before the lock is released.
bool is_over(Life life);

// Has the calling thread work for a life, until the object dies.
class LifeScope {
  public:
    explicit LifeScope(Life life);
    ~LifeScope();
    LifeScope(const LifeScope&) = delete;
    LifeScope& operator=(const LifeScope&) = delete;

  private:
    const Life outer_;
};

// Returns whether the caller works for a life that has ended (by vexa_svc_deinit(), say). It must
// not touch what may belong to a later one. As to locks, see is_over().
bool superseded();

// Marks the calling thread as a receive thread, for the rest of its time.
void become_receive_thread();

// Marks the calling thread as being inside a session's state callback, until the object dies.
class SessionCallbackScope {
  public:
    SessionCallbackScope();
    ~SessionCallbackScope();
    SessionCallbackScope(const SessionCallbackScope&) = delete;
    SessionCallbackScope& operator=(const SessionCallbackScope&) = delete;
};

bool in_session_callback();

// Returns whether the caller runs where an answer of the Manager must not be waited for: on a
// receive thread, which would have to receive it, or inside a session's state callback.
bool must_not_wait();

// The same, with a log line that `function` cannot be called there.
bool refused_where_none_may_wait(const char* function);

// Has init and the waits for acknowledgements see that `life` has no receive thread any more. Does
// nothing if the life has ended.
void stop_receiving(Life life) EXCLUDES(gInitMutex);

// Has all waits for acknowledgements look again whether they can still be answered.
void wake_waits();
