#include "in_process/fixture.h"

#include <android/log.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>

#include "client/IVexaClient.h"
#include "client/json_access.h"
#include "message.h"

#define EXPORTED __attribute__((visibility("default")))

namespace {

constexpr int kDefaultDebugLevel = 4;

thread_local bool tRunsInline = false;

struct Packets {
    std::mutex mutex;
    std::condition_variable sent;
    std::uint64_t count = 0;
};

// Not destroyed: threads of tasks may outlive main().
Packets& gPackets = *new Packets;

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

EXPORTED ssize_t sendto(int, const void*, std::size_t size, int, const sockaddr*, socklen_t) {
    const std::lock_guard<std::mutex> lock(gPackets.mutex);
    ++gPackets.count;
    gPackets.sent.notify_one();
    return static_cast<ssize_t>(size);
}

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*start)(void*), void* argument) noexcept {
    static const auto create = real<decltype(pthread_create)>("pthread_create");
    if (!tRunsInline) return create(thread, attributes, start, argument);
    *thread = ::pthread_self();
    start(argument);
    return 0;
}

EXPORTED int pthread_detach(pthread_t thread) noexcept {
    static const auto detach = real<decltype(pthread_detach)>("pthread_detach");
    return tRunsInline ? 0 : detach(thread);
}

}  // extern "C"

namespace bench {

void prepare_library() {
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    gDebugLevel = kDefaultDebugLevel;
}

void set_tables(std::size_t services, std::size_t sessions, vexon_exec_callback_t task) {
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

InlineThreads::InlineThreads() {
    tRunsInline = true;
}

InlineThreads::~InlineThreads() {
    tRunsInline = false;
}

void wait_for_packets(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(gPackets.mutex);
    gPackets.sent.wait(lock, [count] { return gPackets.count >= count; });
}

std::uint64_t packets_sent() {
    const std::lock_guard<std::mutex> lock(gPackets.mutex);
    return gPackets.count;
}

Json::Value parsed(const std::string& text) {
    Json::Value root;
    JsonReader().parse(text.data(), text.data() + text.size(), &root, nullptr);
    return root;
}

}  // namespace bench
