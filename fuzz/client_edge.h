// SPDX-License-Identifier: Apache-2.0
// The C library as the client sees it: the fuzzer stands in for the functions by which the client
// starts threads, receives, sends and pauses, so that it knows when the client has come to rest,
// sees what it sends and need not wait.
//
// Thread-safe.

#pragma once

#include <cstdint>

// While it lives, the calling thread has the client connect and introduce itself, or leave: what it
// sends goes to the Manager, and threads that it starts are the client's, as those that these
// start. What the receive thread asks for is counted from its beginning on; there is no thread of
// the client then.
class IntroductionScope {
  public:
    IntroductionScope();
    ~IntroductionScope();
    IntroductionScope(const IntroductionScope&) = delete;
    IntroductionScope& operator=(const IntroductionScope&) = delete;
};

// Waits until the client's only thread is the receive thread and asks for a packet after it was
// given `given`, or until it has no thread at all. Returns whether it has one.
bool await_rest(std::uint64_t given);

// Waits until the client has no thread.
void await_end_of_threads();
