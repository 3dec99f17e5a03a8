// What it takes that values are made by one thread and released by another, as those of a task are:
// parse, decoding and release of a message, where the release is done by this thread, by another
// one on the same core, or by one on another core.

#include <benchmark/benchmark.h>
#include <json/json.h>
#include <sched.h>

#include <chrono>
#include <memory>
#include <thread>

#include "client/params/add_params.h"
#include "client/params/queues.h"
#include "in_process/fixture.h"
#include "in_process/registration.h"
#include "message.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHere = -1;
constexpr int kWarmUp = 10;

// Keeps this thread on one core as long as it lives.
class OnCore {
  public:
    explicit OnCore(int core) {
        ::sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned>(core), &one);
        ::sched_setaffinity(0, sizeof one, &one);
    }
    ~OnCore() { ::sched_setaffinity(0, sizeof before_, &before_); }
    OnCore(const OnCore&) = delete;
    OnCore& operator=(const OnCore&) = delete;

  private:
    cpu_set_t before_;
};

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

vexon_func_call_info_t make_arguments(Json::CharReader* reader, const std::string& text) {
    Json::Value root;
    vexon_func_call_info_t call{};
    reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    AddParamsToQueues(root, &call);
    return call;
}

double release_timed(const vexon_func_call_info_t& call) {
    const auto begin = Clock::now();
    ClearParamsFromQueues(call);
    return seconds_since(begin);
}

// Returns the time without that of the thread's start.
double release_on(int core, const vexon_func_call_info_t& call) {
    if (core == kHere) return release_timed(call);
    double time = 0;
    std::thread([&] {
        const OnCore pinned(core);
        time = release_timed(call);
    }).join();
    return time;
}

void make_and_release(benchmark::State& state, int core) {
    const OnCore pinned(0);
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::string text = exec_task_text(scalars("int32", count), kFirstTransaction);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    for (int i = 0; i < kWarmUp; ++i) release_on(core, make_arguments(reader.get(), text));
    double making = 0;
    double releasing = 0;
    for (auto iteration : state) {
        const auto begin = Clock::now();
        const vexon_func_call_info_t call = make_arguments(reader.get(), text);
        const double made = seconds_since(begin);
        const double released = release_on(core, call);
        making += made;
        releasing += released;
        state.SetIterationTime(made + released);
    }
    const double values = static_cast<double>(state.iterations()) * static_cast<double>(count);
    state.counters["making_ns"] = making / values * 1e9;
    state.counters["releasing_ns"] = releasing / values * 1e9;
}

void add(const char* place, int core) {
    const std::string name = std::string("release/") + place;
    benchmark::RegisterBenchmark(name.c_str(),
                                 [core](benchmark::State& state) { make_and_release(state, core); })
        ->Arg(1'000)
        ->UseManualTime();
}

}  // namespace

void register_release() {
    add("by the thread that made them", kHere);
    add("by another on its core", 0);
    if (std::thread::hardware_concurrency() > 1) add("by another on another core", 1);
}

}  // namespace bench
