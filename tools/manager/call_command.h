#pragma once

#include "manager/commands.h"

namespace manager {

/// Reads the arguments of the command that has a function executed, once or as a load.
Action parse_call(Words& words);

}  // namespace manager
