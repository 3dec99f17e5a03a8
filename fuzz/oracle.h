// SPDX-License-Identifier: Apache-2.0
// What all fuzzers share. Used by one thread.

#pragma once

#include <optional>
#include <string>

#include "client/utility/json_access.h"
#include "fuzz/require.h"

// Has all lines of the log formatted, as that may go wrong too, but written nowhere.
void quiet_log();

// Forgets the names of types that inputs have added, so that each finds the same table; requires
// that they have become known in no other way.
void restore_data_types();

// Returns the value of a JSON text as the library reads it, nothing if it is none.
std::optional<Json::Value> parse_json(const std::string& text);
