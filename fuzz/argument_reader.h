#pragma once

#include <string>

#include "vexon2_0.h"

// Reads all arguments of a call to the last byte, as a service does that goes by their tags. What
// is stored under a wrong tag is then an access that AddressSanitizer reports, in most cases, or an
// exception, which ends the process as well. Requires that both queues have the same keys and
// values and that all tags are known. Returns the members of a task's "func" in JSON, as
// fuzz/argument_writer.h writes arguments.
std::string read_arguments(const vexon_func_call_info_t& info) noexcept;
