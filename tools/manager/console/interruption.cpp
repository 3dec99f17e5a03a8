// SPDX-License-Identifier: Apache-2.0
#include "manager/console/interruption.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <array>
#include <csignal>
#include <utility>

namespace manager {
namespace {

sigset_t block_ending_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGPIPE}) sigaddset(&signals, number);
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

}  // namespace

Interruption::Interruption(std::function<void()> on_interrupt)
    : came_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    thread_ = std::thread([this, signals = block_ending_signals(), call = std::move(on_interrupt)] {
        for (int number = 0; sigwait(&signals, &number) == 0 && !done_;) {
            const std::lock_guard lock(mutex_);
            // The signal that ends the program is not covered by a later one.
            if (signal_ == 0 || signal_ == SIGINT) signal_ = number;
            eventfd_write(came_.get(), 1);
            call();
        }
    });
}

Interruption::~Interruption() {
    done_ = true;
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
}

bool Interruption::forgive() const {
    const std::lock_guard lock(mutex_);
    if (signal_ != SIGINT) return false;
    signal_ = 0;
    eventfd_t ignored = 0;
    eventfd_read(came_.get(), &ignored);
    return true;
}

void Interruption::interrupt(int signal) {
    // Blocked, and so taken by the thread: a signal for the whole program, unlike that of a write.
    kill(getpid(), signal);
}

bool Interruption::wait_readable(int fd, std::optional<std::chrono::milliseconds> timeout) const {
    std::array<pollfd, 2> events{{{came_.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
    poll(events.data(), events.size(), timeout ? static_cast<int>(timeout->count()) : -1);
    return events[0].revents == 0 && events[1].revents != 0;
}

}  // namespace manager
