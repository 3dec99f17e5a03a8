// SPDX-License-Identifier: Apache-2.0
#include "fuzz/oracle.h"

#include <android/log.h>

#include <cstdio>
#include <cstdlib>

#include "client/IVexaClient.h"
#include "client/utility/IVexaClient_utility.h"
#include "client/utility/logging.h"

void quiet_log() {
    gDebugLevel = kProgress;
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
}

void restore_data_types() {
    static const std::map<std::string, vexon_data_type_t>& known =
        *new std::map<std::string, vexon_data_type_t>(known_data_types());
    if (gDataTypes == known) return;
    for (const auto& [name, type] : gDataTypes) {
        const auto entry = known.find(name);
        require(type == (entry == known.end() ? VEXON_TYPE_NONE : entry->second),
                "a name that is not known has no type, the others keep theirs");
    }
    gDataTypes = known;
}

std::optional<Json::Value> parse_json(const std::string& text) {
    Json::Value value;
    const char* const begin = text.data();
    if (!JsonReader().parse(begin, begin + text.size(), &value, nullptr)) return std::nullopt;
    return value;
}
