// SPDX-License-Identifier: Apache-2.0
// The argument queues of one call. They belong to one thread at a time: built on the receive
// thread, then used by the task's.

#pragma once

#include <memory>

#include "vexon2_0.h"

// Insert a value under `key`; the first value under a key stays. The queue is made when it is
// missing. A null `info` is ignored.
VEXON_API void QueueInsertion(vexon_func_call_info_t* info, int key,
                              std::shared_ptr<ValuesInterface> value, vexon_data_type_t type);
VEXON_API void value_QueueInsertion(vexon_func_call_info_t* info, int key,
                                    std::shared_ptr<ValuesInterface> value);

// Releases both queues. The pointers in all other copies of the record are dangling afterwards.
VEXON_API void ClearParamsFromQueues(vexon_func_call_info_t info);
