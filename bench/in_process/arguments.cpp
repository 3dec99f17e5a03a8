// SPDX-License-Identifier: Apache-2.0
// What becomes of arguments: decoding beside jsoncpp's own parse of the message that holds them,
// and release by various threads. What is compared is timed in turns, as what disturbs the machine
// disturbs all then.

#include <benchmark/benchmark.h>
#include <json/json.h>
#include <sched.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "client/params/add_params.h"
#include "client/params/decoding.h"
#include "client/params/queues.h"
#include "message.h"
#include "quantile.h"

namespace bench {
namespace {

constexpr int kLeast = 11;  // times, so that one disturbance does not make the median
constexpr std::size_t kReleased = 1'000;
constexpr int kTurn = 4;  // times for each place before the next one's turn, and as many to warm up

const std::vector<std::string> kScalarTypes = {"uint8",   "uint16", "uint32",  "uint64", "int8",
                                               "int16",   "int32",  "int64",   "double", "string",
                                               "boolean", "enum",   "bnry_blb"};

template <class Work>
double seconds_of(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// A message that is parsed and decoded again and again.
struct Task {
    void parse(Json::Value* root) const {
        reader->parse(text.data(), text.data() + text.size(), root, nullptr);
    }

    void decode(const Json::Value& root, vexon_func_call_info_t* call) const {
        if (AddParamsToQueues(root, call) != 0) throw std::runtime_error("cannot decode " + text);
    }

    const std::string text;
    const std::unique_ptr<Json::CharReader> reader{Json::CharReaderBuilder().newCharReader()};
};

using MakeMessage = Message (*)(const std::string& type, std::size_t count);

// The release of values is not counted, it is the worker's.
void decode(benchmark::State& state, MakeMessage make, const std::string& type) {
    const Message message = make(type, static_cast<std::size_t>(state.range(0)));
    const Task task{exec_task_text(message, kFirstTransaction)};
    std::vector<double> parse;
    std::vector<double> decode;
    const auto run = [&] {
        Json::Value root;
        vexon_func_call_info_t call{};
        parse.push_back(seconds_of([&] { task.parse(&root); }));
        decode.push_back(seconds_of([&] { task.decode(root, &call); }));
        ClearParamsFromQueues(call);
    };
    for (int i = 0; i < kLeast; ++i) run();
    for (auto iteration : state) {
        run();
        state.SetIterationTime(decode.back());
    }
    const double decode_seconds = quantile(decode, 0.5);
    const double parse_seconds = quantile(parse, 0.5);
    state.counters["decode_ns"] = decode_seconds * 1e9;
    state.counters["parse_ns"] = parse_seconds * 1e9;
    state.counters["decode/parse"] = decode_seconds / parse_seconds;
    state.SetComplexityN(state.range(0));
}

void stay_on(const cpu_set_t& cores) {
    if (::sched_setaffinity(0, sizeof cores, &cores) == 0) return;
    throw std::runtime_error("cannot choose a core");
}

// Has the values released by another thread on `cores` or, without any, by this thread. Returns how
// long that takes without the start of the thread.
double release(const vexon_func_call_info_t& call, const std::optional<cpu_set_t>& cores) {
    if (!cores) return seconds_of([&] { ClearParamsFromQueues(call); });
    double time = 0;
    std::thread([&] {
        stay_on(*cores);
        time = release(call, {});
    }).join();
    return time;
}

void make_and_release(benchmark::State& state) {
    const auto core = static_cast<unsigned>(::sched_getcpu());
    cpu_set_t own{};
    cpu_set_t others{};
    ::sched_getaffinity(0, sizeof others, &others);
    CPU_SET(core, &own);
    CPU_CLR(core, &others);
    stay_on(own);
    std::map<std::string, std::optional<cpu_set_t>> places = {{"by the thread that made them", {}},
                                                              {"by another on its core", own}};
    if (CPU_COUNT(&others) > 0) places["by another on another core"] = others;

    const Task task{exec_task_text(scalars("int32", kReleased), kFirstTransaction)};
    std::map<std::string, std::vector<double>> times;
    const auto take_turn = [&](const std::string& place, const auto& cores, bool counts) {
        vexon_func_call_info_t call{};
        const double made = seconds_of([&] {
            Json::Value root;
            task.parse(&root);
            task.decode(root, &call);
        });
        const double released = release(call, cores);
        if (!counts) return;
        times["making " + place].push_back(made);
        times["releasing " + place].push_back(released);
    };
    for (auto iteration : state) {
        for (const auto& [place, cores] : places) {
            for (int i = -kTurn; i < kTurn; ++i) take_turn(place, cores, i >= 0);
        }
    }
    for (const auto& [name, values] : times) {
        state.counters[name] = quantile(values, 0.5) / kReleased * 1e9;
    }
}

void add(const std::string& name, MakeMessage make, const std::string& type,
         const std::vector<std::int64_t>& counts) {
    auto* const family = benchmark::RegisterBenchmark(
        name.c_str(), [=](benchmark::State& state) { decode(state, make, type); });
    family->ArgsProduct({counts})->UseManualTime()->Complexity(benchmark::oN);
}

bool register_all() {
    for (const std::string& type : kScalarTypes) {
        add("arguments/" + type, scalars, type, {1, 10, 100, 1'000});
    }
    add("arguments/struct", scalars, "struct", {1, 10, 100, 300});
    for (const std::string& type : kScalarTypes) {
        add("elements/" + type, vector_of, type, {1, 100, 1'000, 10'000});
    }
    add("elements/struct", vector_of, "struct", {1, 10, 100, 300});
    const auto nested = [](const std::string&, std::size_t depth) { return nested_structs(depth); };
    add("nesting/struct", nested, "", {1, 2, 4, 8, 32, 128});
    benchmark::RegisterBenchmark("type lookup/13 names", [](benchmark::State& state) {
        for (auto iteration : state) {
            for (const auto& name : kScalarTypes) benchmark::DoNotOptimize(data_type_of(name));
        }
    });
    // None of the threads is the main thread, whose memory is managed in another way.
    benchmark::RegisterBenchmark("release", [](benchmark::State& state) {
        std::thread([&] { make_and_release(state); }).join();
    })->UseRealTime();
    return true;
}

[[maybe_unused]] const bool kRegistered = register_all();

}  // namespace
}  // namespace bench
