// What all services share. Each is told where the driver listens and ends when the driver closes
// its standard input.

#pragma once

#include <string>

namespace bench {

// Returns a socket of `type` that is connected to `path`. Throws std::system_error.
int connect_to(const std::string& path, int type);

// Returns when standard input ends.
void wait_until_told();

}  // namespace bench
