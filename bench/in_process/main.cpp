// SPDX-License-Identifier: Apache-2.0
// What runs inside a process without a socket, with Google Benchmark and its options. Here are
// dispatch of a parsed message, tasks and replies.

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>

#include <mutex>
#include <string>

#include "client/IVexaClient.h"
#include "client/receiving/dispatch.h"
#include "client/utility/json_access.h"
#include "message.h"
#include "task.h"
#include "tests/interposing.h"

namespace {

using namespace bench;

constexpr int kDefaultDebugLevel = 4;

// What tasks wait for each other at, and what counts the packets that the library sends.
pthread_barrier_t gAllRun;
sem_t gPackets;

// Whether this thread runs what it would start a thread for by itself.
thread_local bool tRunsInline = false;

}  // namespace

extern "C" {

EXPORTED ssize_t sendto(int, const void*, std::size_t size, int, const sockaddr*, socklen_t) {
    ::sem_post(&gPackets);
    return static_cast<ssize_t>(size);
}

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*start)(void*), void* argument) noexcept {
    static const auto create = real<decltype(pthread_create)>(nullptr, "pthread_create");
    if (!tRunsInline) return create(thread, attributes, start, argument);
    *thread = ::pthread_self();
    start(argument);
    return 0;
}

}  // extern "C"

namespace {

// Makes the services of opcodes kOpcode, kOpcode + 1, ... ready, and the sessions kSession,
// kSession + 1, ... for the first of them. Nothing else is ready afterwards.
void set_tables(std::int64_t services, std::int64_t sessions, vexon_exec_callback_t task) {
    const std::lock_guard<std::mutex> ready_lock(gReadyMutex);
    const std::lock_guard<std::mutex> sessions_lock(gSessionsMutex);
    gReady.clear();
    gSessions.clear();
    ready_meta_data service;
    service.exec_callback = task;
    for (std::uint32_t i = 0; i < services; ++i) gReady.emplace(kOpcode + i, service);
    for (std::uint32_t i = 0; i < sessions; ++i) {
        gSessions[kSession + i][{kOpcode, kSubsystem}] = VEXA_SESSION_READY;
    }
}

Json::Value parsed(const std::string& text) {
    Json::Value root;
    JsonReader().parse(text.data(), text.data() + text.size(), &root, nullptr);
    return root;
}

Json::Value task_for(std::int64_t session) {
    Json::Value message = parsed(exec_task_text(small_request(), kFirstTransaction));
    message["session_id"] = static_cast<Json::UInt>(kSession + session);
    return message;
}

// The whole task but for the thread's start, whose time would hide all others. It finds its entries
// in the middle of the tables.
void run_inline(benchmark::State& state, std::int64_t services, std::int64_t sessions) {
    set_tables(services, sessions, answer_checksum);
    const Json::Value message = task_for(sessions / 2);
    tRunsInline = true;
    for (auto iteration : state) benchmark::DoNotOptimize(dispatch_message(message));
    tRunsInline = false;
    state.SetComplexityN(state.range(0));
}

void grow_in_flight(benchmark::State& state) {
    set_tables(1, 1, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
        ::pthread_barrier_wait(&gAllRun);
        return answer_checksum(call, args);
    });
    ::pthread_barrier_init(&gAllRun, nullptr, static_cast<unsigned>(state.range(0)));
    ::sem_init(&gPackets, 0, 0);
    const Json::Value message = task_for(0);
    for (auto iteration : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) dispatch_message(message);
        for (std::int64_t i = 0; i < state.range(0); ++i) ::sem_wait(&gPackets);
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

void register_tasks() {
    const auto add = [](const char* name, auto run, int factor, auto least, auto most) {
        auto* const family = benchmark::RegisterBenchmark(name, run);
        return family->RangeMultiplier(factor)->Range(least, most)->Complexity();
    };
    const auto services = [](auto& state) { run_inline(state, state.range(0), 1); };
    const auto sessions = [](auto& state) { run_inline(state, 1, state.range(0)); };
    benchmark::RegisterBenchmark("dispatch/acknowledgement", [](benchmark::State& state) {
        const Json::Value message = parsed(R"({"req_type":"REDY","opcode":"99","result":0})");
        for (auto iteration : state) benchmark::DoNotOptimize(dispatch_message(message));
    });
    add("reply/bytes", encode_reply, 10, 100, 1'000'000)->Complexity(benchmark::oN);
    add("task without thread/ready services", services, 10, 1, 1'000);
    add("task without thread/sessions", sessions, 10, 1, 10'000);
    add("tasks in flight", grow_in_flight, 4, 1, 256)->UseRealTime()->Complexity(benchmark::oN);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    gDebugLevel = kDefaultDebugLevel;
    register_tasks();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
