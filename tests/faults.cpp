// SPDX-License-Identifier: Apache-2.0
#include "faults.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

#include "client/link/life.h"

#include "captured_log.h"
#include "interposing.h"

extern "C" {
[[gnu::weak]] decltype(pthread_create) __interceptor_pthread_create;
[[gnu::weak]] decltype(pthread_cond_clockwait) __interceptor_pthread_cond_clockwait;
[[gnu::weak]] decltype(pthread_mutex_lock) __interceptor_pthread_mutex_lock;
[[gnu::weak]] decltype(clock_gettime) __interceptor_clock_gettime;
[[gnu::weak]] decltype(socket) __interceptor_socket;
[[gnu::weak]] decltype(sendto) __interceptor_sendto;
[[gnu::weak]] decltype(recvfrom) __interceptor_recvfrom;
[[gnu::weak]] void* __interceptor_calloc(std::size_t, std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
}

namespace {

// The library sends without it, other than the Manager in the same process.
constexpr int kManagerFlag = MSG_NOSIGNAL;

struct Demand {
    std::atomic<int> times{0};
    std::atomic<int> error{0};
};

std::array<Demand, 8> gDemands;

Demand& demand(Call call) {
    return gDemands[static_cast<std::size_t>(call)];
}

thread_local bool tMayFail = false;
thread_local Gate* tGate = nullptr;
std::atomic<bool> gHoldNewThreads{false};
std::atomic<bool> gHeldThreadsGo{false};
std::atomic<std::time_t> gAdvance{0};

struct Start {
    void* (*body)(void*);
    void* argument;
};

void* start_when_let_go(void* data) {
    const std::unique_ptr<Start> start(static_cast<Start*>(data));
    while (!gHeldThreadsGo) ::usleep(1000);
    return start->body(start->argument);
}

// Returns whether this call has to fail.
bool due(Call call) {
    std::atomic<int>& times = demand(call).times;
    int left = times;
    while (left > 0 && !times.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

int failed(Call call) {
    errno = demand(call).error;
    return -1;
}

}  // namespace

void fail(Call call, int error, int times) {
    demand(call).error = error;
    demand(call).times = times;
}

void may_fail_here() {
    tMayFail = true;
}

bool all_failed(Call call) {
    return demand(call).times == 0;
}

void Gate::stop_me_before_lock(int n) {
    locks_left_ = n;
    tGate = this;
}

bool Gate::wait_until_reached() const {
    for (int i = 0; i < 10'000 && !reached_; ++i) ::usleep(1000);
    return reached_;
}

void Gate::pass(const pthread_mutex_t* mutex) {
    if (mutex != mutex_ || --locks_left_ > 0) return;
    tGate = nullptr;
    reached_ = true;
    while (!open_) ::usleep(1000);
}

void hold_new_threads(bool hold) {
    gHoldNewThreads = hold;
}

void let_held_threads_go() {
    gHeldThreadsGo = true;
}

void advance_clock(std::chrono::seconds time) {
    gAdvance += time.count();
}

extern "C" {

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*start)(void*), void* argument) noexcept {
    if (due(Call::kPthreadCreate)) return demand(Call::kPthreadCreate).error;
    const auto create = real(__interceptor_pthread_create, "pthread_create");
    if (!gHoldNewThreads) return create(thread, attributes, start, argument);
    return create(thread, attributes, start_when_let_go, new Start{start, argument});
}

EXPORTED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    if (tGate != nullptr) tGate->pass(mutex);
    static const auto lock = real(__interceptor_pthread_mutex_lock, "pthread_mutex_lock");
    return lock(mutex);
}

EXPORTED int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto read = real(__interceptor_clock_gettime, "clock_gettime");
    const int result = read(clock, time);
    if (clock == CLOCK_MONOTONIC) time->tv_sec += gAdvance;
    return result;
}

EXPORTED int pthread_cond_clockwait(pthread_cond_t* cv, pthread_mutex_t* mutex, clockid_t clock,
                                    const timespec* deadline) {
    if (due(Call::kCondClockwait)) return demand(Call::kCondClockwait).error;
    return real(__interceptor_pthread_cond_clockwait, "pthread_cond_clockwait")(cv, mutex, clock,
                                                                                deadline);
}

EXPORTED int socket(int domain, int type, int protocol) noexcept {
    if (due(Call::kSocket)) return failed(Call::kSocket);
    return real(__interceptor_socket, "socket")(domain, type, protocol);
}

EXPORTED ssize_t sendto(int fd, const void* data, std::size_t size, int flags,
                        const sockaddr* address, socklen_t address_size) {
    const bool is_due = (flags & kManagerFlag) == 0 && due(Call::kSendTo);
    if (is_due && demand(Call::kSendTo).error != 0) return failed(Call::kSendTo);
    return real(__interceptor_sendto, "sendto")(fd, data, is_due ? size - 1 : size, flags, address,
                                                address_size);
}

EXPORTED ssize_t recvfrom(int fd, void* data, std::size_t size, int flags, sockaddr* address,
                          socklen_t* address_size) {
    const ssize_t received =
        real(__interceptor_recvfrom, "recvfrom")(fd, data, size, flags, address, address_size);
    return flags == 0 && due(Call::kRecvFrom) ? failed(Call::kRecvFrom) : received;
}

EXPORTED void* calloc(std::size_t count, std::size_t size) noexcept {
    if (due(Call::kCalloc)) return nullptr;
    return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size)
                                           : __libc_calloc(count, size);
}

}  // extern "C"

#if VEXON_OWN_NEW

EXPORTED void* operator new(std::size_t size) {
    const bool may_fail = (must_not_wait() || tMayFail) && !CapturedLog::is_adding();
    const bool is_due =
        may_fail && ((size >= kLargeBlock && due(Call::kNew)) || due(Call::kAnyNew));
    void* const block = is_due ? nullptr : std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

EXPORTED void operator delete(void* block) noexcept {
    std::free(block);
}

EXPORTED void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

#endif
