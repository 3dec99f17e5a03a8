// SPDX-License-Identifier: Apache-2.0
// What the argument decoders share.

#pragma once

#include <string>

#include "client/IVexaClient.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

// Returns the type of the name. A name that is not known yields VEXON_TYPE_NONE and is remembered.
inline vexon_data_type_t data_type_of(const std::string& name) {
    return gDataTypes[name];
}

// Runs a decoder. What is thrown at a value of a wrong kind becomes a log line and -1.
template <class Decode>
int decode_guarded(Decode decode) {
    try {
        return decode();
    } catch (const MalformedMessage& error) {
        log_line(kAlways, "Malformed argument while parsing: %s", error.what());
        return -1;
    }
}
