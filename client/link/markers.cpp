// SPDX-License-Identifier: Apache-2.0
// vexa_log_marker() and vexa_log(): texts for whoever reads the log or traces the Manager. Any
// thread.

#include <android/log.h>

#include "client/IVexaClient.h"
#include "client/utility/logging.h"

namespace {
constexpr const char* kMarkerName = "VEXON_marker";
}

int vexa_log_marker(const char* text) {
    if (text == nullptr) return -1;
    const int logged = log_with_priority(ANDROID_LOG_INFO, "%s : %s : ", kMarkerName, text);
    if (!gMarkersEnabled) return logged;

    const int sent = vexa_send_to_manager_raw(text);
    if (sent != 0) log_line(kFailure, "Message was not sent successfully %s", kMarkerName);
    return sent;
}

void vexa_log(int level, const char* text) {
    if (text != nullptr) log_line(level <= 0 ? kAlways : static_cast<LogLevel>(level), "%s", text);
}
