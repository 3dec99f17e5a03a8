// SPDX-License-Identifier: Apache-2.0
// The function of the services that get their arguments in maps.

#pragma once

#include "vexon2_0.h"

namespace bench {

// An exec callback: answers with the checksum of the arguments, for which it looks at each.
int answer_checksum(_vexon_call_info_t* call, vexon_func_call_info_t args);

}  // namespace bench
