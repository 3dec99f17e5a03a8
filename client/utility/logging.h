// SPDX-License-Identifier: Apache-2.0
// Diagnostics. Every line goes to the Android log without a tag of its own; any thread may write
// one, also while the process exits.

#pragma once

// From which value of gDebugLevel on a line is written.
enum LogLevel : int {
    kAlways = -2147483647 - 1,
    kFailure = 1,
    kAnomaly = 2,
    kTrace = 3,
    kProgress = 4,
};

// Writes one line with error priority if gDebugLevel has reached `level`.
__attribute__((format(printf, 2, 3))) void log_line(LogLevel level, const char* format, ...);

// Writes one line with a priority of <android/log.h>, whatever gDebugLevel is. Returns what the
// Android log returns.
__attribute__((format(printf, 2, 3))) int log_with_priority(int priority, const char* format, ...);
