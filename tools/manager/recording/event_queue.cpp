#include "manager/recording/event_queue.h"

#include <sys/eventfd.h>

#include <algorithm>

namespace manager {

EventQueue::EventQueue() : filled_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void EventQueue::open() {
    const std::lock_guard lock(mutex_);
    is_open_ = true;
}

void EventQueue::close() {
    const std::lock_guard lock(mutex_);
    is_open_ = false;
    events_.clear();
}

void EventQueue::add(const Event& event) {
    const std::lock_guard lock(mutex_);
    if (!is_open_) return;
    events_.push_back(event);
    eventfd_write(filled_.get(), 1);
}

std::optional<EventQueue::Event> EventQueue::next(const Interruption& interruption,
                                                  std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    while (interruption.signal() == 0) {
        if (auto event = take()) return event;
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left.count() <= 0) break;
        interruption.wait_readable(filled_.get(), std::chrono::ceil<milliseconds>(left));
    }
    return std::nullopt;
}

std::optional<EventQueue::Event> EventQueue::take() {
    const std::lock_guard lock(mutex_);
    if (events_.empty()) {
        eventfd_t ignored = 0;
        eventfd_read(filled_.get(), &ignored);
        return std::nullopt;
    }
    Event event = std::move(events_.front());
    events_.pop_front();
    return event;
}

}  // namespace manager
