// What it takes that values are made by one thread and released by another, as those of a task are:
// parse, decoding and release of a message, where the release is done by the thread that made it,
// by another one on the same core, or by one on another core. None of them is the main thread,
// whose memory is managed in another way.

#include <benchmark/benchmark.h>
#include <json/json.h>
#include <sched.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
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

constexpr std::size_t kArguments = 1'000;
constexpr int kTurn = 4;  // times for each place before the next one's turn, and as many to warm up

// Where values are released: by another thread on that core, or by the one that made them.
struct Place {
    std::string name;
    std::optional<int> core;
};

struct Times {
    std::vector<double> making;
    std::vector<double> releasing;
};

std::vector<int> allowed_cores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    ::sched_getaffinity(0, sizeof set, &set);
    std::vector<int> cores;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(static_cast<unsigned>(core), &set)) cores.push_back(core);
    }
    return cores;
}

void stay_on(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(core), &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0)
        throw std::runtime_error("sched_setaffinity");
}

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

vexon_func_call_info_t make_arguments(Json::CharReader* reader, const std::string& text) {
    Json::Value root;
    vexon_func_call_info_t call{};
    reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    if (AddParamsToQueues(root, &call) != 0) throw std::runtime_error("cannot decode " + text);
    return call;
}

double release_timed(const vexon_func_call_info_t& call) {
    const auto begin = Clock::now();
    ClearParamsFromQueues(call);
    return seconds_since(begin);
}

// Returns the time without that of the thread's start.
double release_on(std::optional<int> core, const vexon_func_call_info_t& call) {
    if (!core) return release_timed(call);
    double time = 0;
    std::thread([&] {
        stay_on(*core);
        time = release_timed(call);
    }).join();
    return time;
}

void take_turn(Json::CharReader* reader, const std::string& text, std::optional<int> core,
               Times* times) {
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

// The places take turns: what disturbs the machine disturbs all of them.
void make_and_release(benchmark::State& state) {
    const std::vector<int> cores = allowed_cores();
    stay_on(cores[0]);
    std::vector<Place> places = {{"by the thread that made them", {}},
                                 {"by another on its core", cores[0]}};
    if (cores.size() > 1) places.push_back({"by another on another core", cores[1]});

    const std::string text = exec_task_text(scalars("int32", kArguments), kFirstTransaction);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::map<std::string, Times> times;
    for (auto iteration : state) {
        for (const Place& place : places) {
            take_turn(reader.get(), text, place.core, &times[place.name]);
        }
    }
    for (const auto& [name, measured] : times) {
        state.counters["making " + name] = median(measured.making) / kArguments * 1e9;
        state.counters["releasing " + name] = median(measured.releasing) / kArguments * 1e9;
    }
}

}  // namespace

void register_release() {
    benchmark::RegisterBenchmark("release", [](benchmark::State& state) {
        std::thread([&] { make_and_release(state); }).join();
    })->UseRealTime();
}

}  // namespace bench
