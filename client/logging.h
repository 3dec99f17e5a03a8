// Diagnostics. Every line goes to the Android log; any thread may write one.

#pragma once

// From which value of gDebugLevel on a line is written.
enum LogLevel : int {
    kAlways = -2147483647 - 1,
    kFailure = 1,
    kAnomaly = 2,
    kTrace = 3,
    kProgress = 4,
};

// Writes one line with error priority and the log's default tag if gDebugLevel has reached `level`.
__attribute__((format(printf, 2, 3))) void log_line(LogLevel level, const char* format, ...);
