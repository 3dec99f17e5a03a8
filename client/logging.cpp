#include "client/logging.h"

#include <android/log.h>

#include <cstdarg>

#include "client/IVexaClient.h"

void log_line(LogLevel level, const char* format, ...) {
    if (gDebugLevel < level) return;
    va_list arguments;
    va_start(arguments, format);
    __android_log_vprint(ANDROID_LOG_ERROR, nullptr, format, arguments);
    va_end(arguments);
}
