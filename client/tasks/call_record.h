// SPDX-License-Identifier: Apache-2.0
// The record of a task, from its message to its reply. Belongs to one thread at a time.

#pragma once

#include <memory>

#include "vexon2_0.h"

struct CallRecordDeleter {
    void operator()(_vexon_call_info_t* call) const;
};

// The record of one task: a block from calloc() in which the strings are live objects.
using CallRecord = std::unique_ptr<_vexon_call_info_t, CallRecordDeleter>;

// Returns a record of zeros and empty strings, null when out of memory.
CallRecord make_call_record();
