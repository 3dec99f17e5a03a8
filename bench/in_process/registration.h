#pragma once

namespace bench {

// Each registers the benchmarks of the file of its name.
void register_decoding();
void register_release();
void register_tasks();

}  // namespace bench
