// Dispatch of a parsed message, tasks and replies.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "client/dispatch.h"
#include "in_process/fixture.h"
#include "in_process/registration.h"
#include "message.h"
#include "task.h"

namespace bench {
namespace {

void dispatch_acknowledgement(benchmark::State& state) {
    const Json::Value message = parsed(R"({"req_type":"REDY","opcode":"99","result":0})");
    for (auto iteration : state) benchmark::DoNotOptimize(dispatch_message(message));
}

// A task that finds its entries in the middle of the tables.
Json::Value task_for(std::size_t session) {
    Json::Value message = parsed(exec_task_text(small_request(), kFirstTransaction));
    message["session_id"] = static_cast<Json::UInt>(kSession + session);
    return message;
}

// The whole task but for the thread's start, whose time would hide all others.
void run_inline(benchmark::State& state, std::size_t services, std::size_t sessions) {
    set_tables(services, sessions, answer_checksum);
    const Json::Value message = task_for(sessions / 2);
    const InlineThreads scope;
    for (auto iteration : state) benchmark::DoNotOptimize(dispatch_message(message));
    state.SetComplexityN(state.range(0));
}

void grow_services(benchmark::State& state) {
    run_inline(state, static_cast<std::size_t>(state.range(0)), 1);
}

void grow_sessions(benchmark::State& state) {
    run_inline(state, 1, static_cast<std::size_t>(state.range(0)));
}

// Holds tasks back until as many as that are running.
class Barrier {
  public:
    void expect(std::size_t tasks) {
        const std::lock_guard<std::mutex> lock(mutex_);
        missing_ = tasks;
    }

    void arrive() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (--missing_ == 0) return all_here_.notify_all();
        all_here_.wait(lock, [this] { return missing_ == 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable all_here_;
    std::size_t missing_ = 0;
};

Barrier& gBarrier = *new Barrier;

void grow_in_flight(benchmark::State& state) {
    const auto tasks = static_cast<std::size_t>(state.range(0));
    set_tables(1, 1, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
        gBarrier.arrive();
        return answer_checksum(call, args);
    });
    const Json::Value message = task_for(0);
    for (auto iteration : state) {
        gBarrier.expect(tasks);
        const std::uint64_t before = packets_sent();
        for (std::size_t i = 0; i < tasks; ++i) dispatch_message(message);
        wait_for_packets(before + tasks);
    }
    state.SetComplexityN(state.range(0));
}

void encode_reply(benchmark::State& state) {
    _vexon_call_info_t call{};
    call.opcode = "0x1a";
    call.name = small_request().function;
    call.func = "\"out\":\"" + std::string(static_cast<std::size_t>(state.range(0)), 'x') + '"';
    for (auto iteration : state) vexa_send_response(&call, "");
    state.SetComplexityN(state.range(0));
}

}  // namespace

void register_tasks() {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("dispatch/acknowledgement", dispatch_acknowledgement);
    RegisterBenchmark("reply/bytes", encode_reply)
        ->RangeMultiplier(10)
        ->Range(100, 1'000'000)
        ->Complexity(benchmark::oN);
    RegisterBenchmark("task without thread/ready services", grow_services)
        ->RangeMultiplier(10)
        ->Range(1, 1'000)
        ->Complexity();
    RegisterBenchmark("task without thread/sessions", grow_sessions)
        ->RangeMultiplier(10)
        ->Range(1, 10'000)
        ->Complexity();
    RegisterBenchmark("tasks in flight", grow_in_flight)
        ->RangeMultiplier(4)
        ->Range(1, 256)
        ->UseRealTime()
        ->Complexity(benchmark::oN);
}

}  // namespace bench
