#pragma once

namespace bench {

// Registers the benchmarks of decoding and of release.
void register_arguments();

}  // namespace bench
