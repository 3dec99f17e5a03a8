#include "manager/console/interruption.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

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
    : done_(eventfd(0, EFD_CLOEXEC)), came_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    const sigset_t signals = block_ending_signals();
    signals_ = FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
    thread_ = std::thread([this, call = std::move(on_interrupt)] { watch(call); });
}

Interruption::~Interruption() {
    eventfd_write(done_.get(), 1);
    thread_.join();
}

void Interruption::watch(const std::function<void()>& on_interrupt) {
    std::array<pollfd, 2> events{{{signals_.get(), POLLIN, 0}, {done_.get(), POLLIN, 0}}};
    while (true) {
        poll(events.data(), events.size(), -1);
        signalfd_siginfo info{};
        if (events[0].revents == 0 || read(signals_.get(), &info, sizeof(info)) != sizeof(info)) {
            return;
        }
        const std::lock_guard lock(mutex_);
        // The signal that ends the program is not covered by a later one.
        if (signal_ == 0 || signal_ == SIGINT) signal_ = static_cast<int>(info.ssi_signo);
        eventfd_write(came_.get(), 1);
        on_interrupt();
    }
}

bool Interruption::forgive() const {
    const std::lock_guard lock(mutex_);
    int expected = SIGINT;
    if (!signal_.compare_exchange_strong(expected, 0)) return false;
    eventfd_t ignored = 0;
    eventfd_read(came_.get(), &ignored);
    return true;
}

void Interruption::interrupt(int signal) {
    // Blocked, and so read by watch(): a signal for the whole program, unlike that of a write.
    kill(getpid(), signal);
}

int Interruption::signal() const {
    return signal_;
}

bool Interruption::wait_readable(int fd, std::optional<std::chrono::milliseconds> timeout) const {
    std::array<pollfd, 2> events{{{came_.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
    poll(events.data(), events.size(), timeout ? static_cast<int>(timeout->count()) : -1);
    return events[0].revents == 0 && events[1].revents != 0;
}

void Interruption::sleep(std::chrono::milliseconds duration) const {
    pollfd event{came_.get(), POLLIN, 0};
    poll(&event, 1, static_cast<int>(duration.count()));
}

}  // namespace manager
