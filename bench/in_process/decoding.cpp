// Decoding of arguments, beside jsoncpp's own parse of the message that holds them. Both are timed
// in turns. The release of values is not counted, it is the worker's.

#include <benchmark/benchmark.h>
#include <json/json.h>

#include <chrono>
#include <memory>
#include <vector>

#include "client/params/add_params.h"
#include "client/params/decoding.h"
#include "client/params/queues.h"
#include "in_process/fixture.h"
#include "in_process/median.h"
#include "in_process/registration.h"
#include "message.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLeast = 11;  // times, so that one disturbance does not make the median

const char* const kScalarTypes[] = {"uint8",   "uint16", "uint32",  "uint64", "int8",
                                    "int16",   "int32",  "int64",   "double", "string",
                                    "boolean", "enum",   "bnry_blb"};

struct Times {
    std::vector<double> parse;
    std::vector<double> decode;
};

class Decoding {
  public:
    explicit Decoding(const Message& message) : text_(exec_task_text(message, kFirstTransaction)) {}

    // Returns the time that decoding took.
    double run() {
        Json::Value root;
        vexon_func_call_info_t call{};
        const auto begin = Clock::now();
        reader_->parse(text_.data(), text_.data() + text_.size(), &root, nullptr);
        const auto between = Clock::now();
        const int failed = AddParamsToQueues(root, &call);
        const auto end = Clock::now();
        ClearParamsFromQueues(call);
        if (failed != 0) throw std::runtime_error("cannot decode " + text_);

        times_.parse.push_back(std::chrono::duration<double>(between - begin).count());
        times_.decode.push_back(std::chrono::duration<double>(end - between).count());
        return times_.decode.back();
    }

    const Times& times() const { return times_; }

  private:
    const std::string text_;
    const std::unique_ptr<Json::CharReader> reader_{Json::CharReaderBuilder().newCharReader()};
    Times times_;
};

using MakeMessage = Message (*)(const std::string& type, std::size_t count);

void decode(benchmark::State& state, MakeMessage make, const std::string& type) {
    Decoding decoding(make(type, static_cast<std::size_t>(state.range(0))));
    for (int i = 0; i < kLeast; ++i) decoding.run();
    for (auto iteration : state) state.SetIterationTime(decoding.run());
    const double parse = median(decoding.times().parse);
    const double own = median(decoding.times().decode);
    state.counters["decode_ns"] = own * 1e9;
    state.counters["parse_ns"] = parse * 1e9;
    state.counters["decode/parse"] = own / parse;
    state.SetComplexityN(state.range(0));
}

Message structs_in_struct(const std::string&, std::size_t depth) {
    return nested_structs(depth);
}

void add(const std::string& name, MakeMessage make, const std::string& type,
         const std::vector<std::int64_t>& counts) {
    auto* const family = benchmark::RegisterBenchmark(
        name.c_str(), [=](benchmark::State& state) { decode(state, make, type); });
    family->ArgsProduct({counts})->UseManualTime()->Complexity(benchmark::oN);
}

void look_up_types(benchmark::State& state) {
    const std::vector<std::string> names(std::begin(kScalarTypes), std::end(kScalarTypes));
    for (auto iteration : state) {
        for (const std::string& name : names) benchmark::DoNotOptimize(data_type_of(name));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(names.size()));
}

}  // namespace

void register_decoding() {
    for (const std::string type : kScalarTypes) {
        add("arguments/" + type, scalars, type, {1, 10, 100, 1'000});
    }
    add("arguments/struct", scalars, "struct", {1, 10, 100, 300});
    for (const std::string type : kScalarTypes) {
        add("elements/" + type, vector_of, type, {1, 100, 1'000, 10'000});
    }
    add("elements/struct", vector_of, "struct", {1, 10, 100, 300});
    add("nesting/struct", structs_in_struct, "", {1, 2, 4, 8, 32, 128});
    benchmark::RegisterBenchmark("type lookup/13 names", look_up_types);
}

}  // namespace bench
