// What runs inside a process, with Google Benchmark and its options.

#include <benchmark/benchmark.h>

#include "in_process/fixture.h"
#include "in_process/registration.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    bench::prepare_library();
    bench::register_decoding();
    bench::register_release();
    bench::register_tasks();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
