// SPDX-License-Identifier: Apache-2.0
// Starting of threads that nobody waits for.

#pragma once

#include <pthread.h>

#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

// What the deepest message or arguments that are taken need, with room to spare, however little the
// process gives to its threads (ulimit -s).
constexpr std::size_t kLeastStack = std::size_t{1024} * 1024;

// Returns the attributes of a detached thread with a stack of the usual size, or of the least one
// if that is smaller. They live for ever.
const pthread_attr_t* thread_attributes();

// Has `body` run on a detached thread. Throws std::system_error with the text "thread constructor
// failed"; the body is destroyed then.
template <class Body>
void start_thread(Body body) {
    auto owned = std::make_unique<Body>(std::move(body));
    const auto run = [](void* data) -> void* {
        const std::unique_ptr<Body> own(static_cast<Body*>(data));
        (*own)();
        return nullptr;
    };
    pthread_t thread{};
    const int error = ::pthread_create(&thread, thread_attributes(), run, owned.get());
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "thread constructor failed");
    }
    static_cast<void>(owned.release());
}
