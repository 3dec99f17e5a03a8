// SPDX-License-Identifier: Apache-2.0
// An input is the text of a task. Its arguments are decoded, read by their tags and released.

#include <json/json.h>

#include <cstdint>

#include "client/params/add_params.h"
#include "client/params/queues.h"
#include "fuzz/argument_reader.h"
#include "fuzz/json_mutator.h"
#include "fuzz/oracle.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto request = parse_json({reinterpret_cast<const char*>(data), size});
    if (!request) return 0;
    vexon_func_call_info_t info{};
    AddParamsToQueues(*request, &info);
    read_arguments(info);  // after a failure, too: what precedes it stays in the queues
    ClearParamsFromQueues(info);
    restore_data_types();
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
    return mutate_input(data, size, max_size, seed, mutate_json);
}
