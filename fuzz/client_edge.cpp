// SPDX-License-Identifier: Apache-2.0
#include "fuzz/client_edge.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "fuzz/oracle.h"
#include "manager/base/json.h"
#include "tests/interposing.h"

extern "C" [[gnu::weak]] decltype(pthread_create) __interceptor_pthread_create;

namespace {

struct Edge {
    std::mutex mutex;
    std::condition_variable changed;
    int threads = 0;
    std::uint64_t asked = 0;  // by the receive thread, on the connection of now
};

// Never destroyed: a thread of the client may end while the process exits.
Edge& edge() {
    static Edge& instance = *new Edge;
    return instance;
}

thread_local bool tIsClients = false;
thread_local bool tIntroduces = false;

template <class Change>
void change_edge(Change change) {
    const std::lock_guard<std::mutex> lock(edge().mutex);
    change(edge());
    edge().changed.notify_all();
}

struct Start {
    void* (*function)(void*);
    void* argument;
};

void* run_client_thread(void* argument) {
    tIsClients = true;
    const Start start = *std::unique_ptr<Start>(static_cast<Start*>(argument));
    void* const result = start.function(start.argument);
    change_edge([](Edge& state) { --state.threads; });
    return result;
}

int create_thread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument) {
    return real(__interceptor_pthread_create, "pthread_create")(thread, attributes, function,
                                                                argument);
}

// AddressSanitizer does not notice pthread_detach(). It would keep a record of every thread that
// ever was, and take a new thread for an old one when the system gives out its number again.
int create_detached_thread(pthread_t* thread, void* (*function)(void*), void* argument) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const int error = create_thread(thread, &attributes, function, argument);
    ::pthread_attr_destroy(&attributes);
    return error;
}

}  // namespace

IntroductionScope::IntroductionScope() {
    tIsClients = tIntroduces = true;
    change_edge([](Edge& state) { state.asked = 0; });
}

IntroductionScope::~IntroductionScope() {
    tIsClients = tIntroduces = false;
}

bool await_rest(std::uint64_t given) {
    Edge& state = edge();
    std::unique_lock<std::mutex> lock(state.mutex);
    state.changed.wait(lock, [&] {
        return state.threads == 0 || (state.threads == 1 && state.asked == given + 1);
    });
    return state.threads != 0;
}

void await_end_of_threads() {
    std::unique_lock<std::mutex> lock(edge().mutex);
    edge().changed.wait(lock, [] { return edge().threads == 0; });
}

extern "C" {

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*function)(void*), void* argument) noexcept {
    if (!tIsClients) return create_thread(thread, attributes, function, argument);
    change_edge([](Edge& state) { ++state.threads; });
    auto start = std::make_unique<Start>(Start{function, argument});
    const int error = create_detached_thread(thread, run_client_thread, start.get());
    if (error != 0) {
        change_edge([](Edge& state) { --state.threads; });
        return error;
    }
    static_cast<void>(start.release());
    return 0;
}

// The client's threads are detached already, and all that it starts it would detach.
EXPORTED int pthread_detach(pthread_t thread) noexcept {
    if (tIsClients) return 0;
    return real<decltype(pthread_detach)>(nullptr, "pthread_detach")(thread);
}

EXPORTED ssize_t recvfrom(int fd, void* data, std::size_t size, int flags, sockaddr*, socklen_t*) {
    change_edge([](Edge& state) { ++state.asked; });
    return ::recv(fd, data, size, flags);
}

// What threads of the client send is looked at, but not sent, as nobody would have to read it then.
EXPORTED ssize_t sendto(int fd, const void* data, std::size_t size, int flags, const sockaddr*,
                        socklen_t) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    const std::string packet(static_cast<const char*>(data), size);
    require(packet == "EXIT" || manager::parse_json(packet), "the client sends JSON");
    return tIntroduces ? ::send(fd, data, size, flags) : static_cast<ssize_t>(size);
}

EXPORTED int usleep(useconds_t) {
    return 0;
}

}  // extern "C"
