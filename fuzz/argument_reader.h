// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexon2_0.h"
#include "vexon2_0_reply.h"

// Reads all arguments of a call to the last byte, as a service does that goes by their tags. What
// is stored under a wrong tag is then an access that AddressSanitizer reports, in most cases, or an
// exception, which ends the process as well. Requires that both queues have the same keys and
// values and that all tags are known. Returns what a task has as "func", with arguments as
// fuzz/argument_writer.h writes them.
vexon::Object read_arguments(const vexon_func_call_info_t& info) noexcept;
