// SPDX-License-Identifier: Apache-2.0
// The API definition that a service hands to its registration.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ApiDefinition {
    const char* json;         // the text inside the blob, as the Manager gets it
    std::string opcode_text;  // as the definition spells it, hexadecimal
    std::uint32_t opcode;
    std::vector<std::uint32_t> subsystems;
};

// Reads `blob`, the definition of the service `opcode`. Returns whether it could be read; if not,
// a log line says why.
bool read_api_definition(const std::uint8_t* blob, std::uint32_t opcode, ApiDefinition* definition);
