// SPDX-License-Identifier: Apache-2.0
// An input is an API definition, with or without its header, up to its terminating NUL.

#include <algorithm>
#include <cstdint>
#include <vector>

#include "client/services/api_definition.h"
#include "fuzz/oracle.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> blob(size + 1);  // a copy, so that no byte beyond it may be read
    std::copy_n(data, size, blob.begin());
    const auto* const begin = reinterpret_cast<const char*>(blob.data());
    ApiDefinition definition{};
    if (!read_api_definition(blob.data(), 0x1a, &definition)) return 0;
    require(definition.json > begin && definition.json < begin + blob.size(),
            "the JSON text lies in the definition");
    return 0;
}
