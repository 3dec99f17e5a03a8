// What the soak test prints while it runs and when it has ended.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "child_process.h"
#include "message_books.h"
#include "session_book.h"
#include "task_book.h"

namespace soak {

struct Progress {
    std::chrono::steady_clock::duration elapsed;
    std::size_t answered;
    std::size_t in_flight;
    std::size_t stops;
    std::size_t memory_kib;
};

// A terminal shows one line that changes often, anything else gets a line now and then.
std::chrono::milliseconds progress_interval();
void print_progress(const Progress& progress);

// What the service wrote to standard error, such as the report of a sanitizer.
void print_errors(const std::string& errors);

struct Report {
    std::chrono::steady_clock::duration duration;
    std::chrono::steady_clock::duration loaded;  // the part of it in which tasks were sent
    std::size_t connections;
    std::size_t manager_stops_graceful;
    std::size_t manager_stops_abrupt;
    std::size_t leaves_graceful;
    std::size_t leaves_abrupt;
    std::size_t undecodable;
    Usage warm;
    Usage last;
    Usage highest;
    std::vector<float> latencies;  // milliseconds
    const TaskBook* tasks;
    const SessionBook* sessions;
    const NoticeBook* notices;
    const QuestionBook* questions;
    const MarkerBook* markers;
};

void print_report(Report report);

}  // namespace soak
