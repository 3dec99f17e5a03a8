// SPDX-License-Identifier: Apache-2.0
#include "client/tasks/call_record.h"

#include <cstdlib>
#include <new>

void CallRecordDeleter::operator()(_vexon_call_info_t* call) const {
    call->~_vexon_call_info_t();
    std::free(call);
}

CallRecord make_call_record() {
    void* const block = std::calloc(1, sizeof(_vexon_call_info_t));
    return CallRecord(block == nullptr ? nullptr : new (block) _vexon_call_info_t());
}
