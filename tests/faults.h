// Failures of the C library on demand. The test program defines these functions itself, so that the
// library under test calls them instead of the real ones, which do the work unless a failure is
// due.

#pragma once

#include <cstddef>

enum class Call { kPthreadCreate, kCondClockwait, kSocket, kSendTo, kRecvFrom, kCalloc, kNew };

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
// receive thread and where may_fail_here() was called. Replaces what was demanded of the function
// before.
void fail(Call call, int error, int times = 1);

// Has kNew fail on this thread too.
void may_fail_here();

// Returns whether all that was demanded has happened.
bool all_failed(Call call);
