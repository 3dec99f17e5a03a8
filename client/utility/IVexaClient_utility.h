// SPDX-License-Identifier: Apache-2.0
// Names of the data types; IVexaClient_utility.cpp has the public conversions of texts too.

#pragma once

#include <map>
#include <string>

#include "vexon2_0.h"

// Returns the names of the data types that messages may use, with their values.
std::map<std::string, vexon_data_type_t> known_data_types();
