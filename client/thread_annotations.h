// SPDX-License-Identifier: Apache-2.0
// Says which lock guards what, for clang's thread-safety analysis.
//
// The analysis needs annotated mutexes, which libc++ has and libstdc++ has not, so that everywhere
// else these expand to nothing.

#pragma once

#include <cstddef>  // defines _LIBCPP_VERSION where the library is libc++

#if defined(__clang__) && defined(_LIBCPP_VERSION)
#define VEXON_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define VEXON_THREAD_ATTRIBUTE(attribute)
#endif

// The object is read and written only with the lock held.
#define GUARDED_BY(lock) VEXON_THREAD_ATTRIBUTE(guarded_by(lock))

// The object that the pointer points to is read and written only with the lock held.
#define PT_GUARDED_BY(lock) VEXON_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// The function is called with the locks held.
#define REQUIRES(...) VEXON_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))

// The function takes the locks itself and is called without them.
#define EXCLUDES(...) VEXON_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// The function's locking is beyond the analysis: it waits on a condition variable, which needs a
// lock type that carries no annotations.
#define NO_THREAD_SAFETY_ANALYSIS VEXON_THREAD_ATTRIBUTE(no_thread_safety_analysis)
