// The arguments of a task in one text, to compare what was decoded with what was sent.

#pragma once

#include <vexon2_0.h>

#include <string>

namespace soak {

// Returns the arguments with their keys and types as the service sees them, and says so in the text
// where the two queues differ. The form is that of Arguments::rendering of the sender.
std::string render(const vexon_func_call_info_t& args);

}  // namespace soak
