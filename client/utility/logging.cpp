// SPDX-License-Identifier: Apache-2.0
#include "client/utility/logging.h"

#include <android/log.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "client/IVexaClient.h"

namespace {

constexpr std::size_t kLongestLine = 4068;  // what an entry of the Android log holds
constexpr int kExitPauses = 1000;
constexpr useconds_t kExitPauseUs = 1000;

// How many lines are being written.
std::atomic<int> gLinesInWork{0};
std::atomic<bool> gLogClosed{false};

// The Android log has statics that die when the process exits, while our threads go on. No line is
// begun after this object has died, and it waits, for a second at most, for those that were.
class LogCloser {
  public:
    ~LogCloser() {
        gLogClosed = true;
        for (int i = 0; gLinesInWork > 0 && i < kExitPauses; ++i) ::usleep(kExitPauseUs);
    }
};

// The threads that write are not in a child process, which is not to wait for them.
[[maybe_unused]] const int kForkHandled =
    ::pthread_atfork(nullptr, nullptr, [] { gLinesInWork = 0; });

class LineScope {
  public:
    LineScope() { ++gLinesInWork; }
    ~LineScope() { --gLinesInWork; }
    LineScope(const LineScope&) = delete;
    LineScope& operator=(const LineScope&) = delete;
};

// Unlike __android_log_vprint(), which cuts a line at 1,023 bytes.
__attribute__((format(printf, 2, 0))) int write_whole(int priority, const char* format,
                                                      va_list arguments) {
    if (std::strchr(format, '%') == nullptr) return __android_log_write(priority, nullptr, format);
    char line[kLongestLine];
    std::vsnprintf(line, sizeof line, format, arguments);
    return __android_log_write(priority, nullptr, line);
}

__attribute__((format(printf, 2, 0))) int write_line(int priority, const char* format,
                                                     va_list arguments) {
    const LineScope scope;
    if (gLogClosed) return 0;
    // The log may drop debug lines, and then does not put them together.
    const int result = priority == ANDROID_LOG_DEBUG
                           ? __android_log_vprint(priority, nullptr, format, arguments)
                           : write_whole(priority, format, arguments);
    static const LogCloser closer;  // younger than the log's statics, so it dies before them
    return result;
}

}  // namespace

void log_line(LogLevel level, const char* format, ...) {
    if (gDebugLevel < level) return;
    va_list arguments;
    va_start(arguments, format);
    write_line(ANDROID_LOG_ERROR, format, arguments);
    va_end(arguments);
}

int log_with_priority(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = write_line(priority, format, arguments);
    va_end(arguments);
    return result;
}
