// What it takes that values are made by one thread and released by another, as those of a task are:
// parse, decoding and release of a message, where the release is done by the thread that made it,
// by another one on the same core, or by one on another core. None of them is the main thread,
// whose memory is managed in another way.

#include <benchmark/benchmark.h>
#include <json/json.h>
#include <sched.h>

#include <array>
#include <chrono>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "client/params/add_params.h"
#include "client/params/queues.h"
#include "in_process/fixture.h"
#include "in_process/median.h"
#include "in_process/registration.h"
#include "message.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHere = -1;
constexpr std::size_t kArguments = 1'000;
constexpr int kTurn = 4;  // times for each place before the next one's turn, and as many to warm up

struct Place {
    const char* name;
    int core;
};

constexpr Place kPlaces[] = {
    {"by the thread that made them", kHere},
    {"by another on its core", 0},
    {"by another on another core", 1},
};

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

struct Times {
    std::vector<double> making;
    std::vector<double> releasing;
};

void take_turn(Json::CharReader* reader, const std::string& text, int core, Times* times) {
    for (int i = -kTurn; i < kTurn; ++i) {
        const auto begin = Clock::now();
        const vexon_func_call_info_t call = make_arguments(reader, text);
        const double made = seconds_since(begin);
        const double released = release_on(core, call);
        if (i < 0) continue;
        times->making.push_back(made);
        times->releasing.push_back(released);
    }
}

std::size_t measured_places() {
    return std::thread::hardware_concurrency() > 1 ? std::size(kPlaces) : std::size(kPlaces) - 1;
}

// The places take turns: what disturbs the machine disturbs all of them.
void make_and_release(benchmark::State& state) {
    const OnCore pinned(0);
    const std::string text = exec_task_text(scalars("int32", kArguments), kFirstTransaction);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::array<Times, std::size(kPlaces)> times;
    for (auto iteration : state) {
        for (std::size_t i = 0; i < measured_places(); ++i) {
            take_turn(reader.get(), text, kPlaces[i].core, &times[i]);
        }
    }
    for (std::size_t i = 0; i < measured_places(); ++i) {
        const std::string name = kPlaces[i].name;
        state.counters["making " + name] = median(times[i].making) / kArguments * 1e9;
        state.counters["releasing " + name] = median(times[i].releasing) / kArguments * 1e9;
    }
}

}  // namespace

void register_release() {
    benchmark::RegisterBenchmark("release", [](benchmark::State& state) {
        std::thread([&] { make_and_release(state); }).join();
    })->UseRealTime();
}

}  // namespace bench
