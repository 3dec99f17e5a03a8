#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "manager/matcher.h"
#include "manager/messages.h"
#include "manager/words.h"

namespace manager {

// Each function takes one kind of argument of the commands from `words`, and throws BadCommand if
// it is not there or wrong.

std::int64_t take_session(Words& words);
/// One OPCODE:SUBSYS[,SUBSYS]...
Target take_target(Words& words);
/// One or more of them, up to the end.
std::vector<Target> take_targets(Words& words);
Step take_step(Words& words);
/// Nothing at the end.
std::optional<Opcode> take_optional_opcode(Words& words);
/// TEXT, quoted or one word, or /REGEX/.
Matcher take_matcher(Words& words);
/// A duration in milliseconds of at most 24 hours; `what` names it.
std::chrono::milliseconds take_milliseconds(Words& words, const char* what);

}  // namespace manager
