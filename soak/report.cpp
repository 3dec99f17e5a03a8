#include "report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace soak {
namespace {

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

bool on_terminal() {
    static const bool terminal = ::isatty(STDOUT_FILENO) != 0;
    return terminal;
}

template <class... Values>
void print_row(const char* title, fmt::format_string<Values...> format, Values&&... values) {
    fmt::print("  {:<12}{}\n", title, fmt::format(format, std::forward<Values>(values)...));
}

// Puts `latencies` into another order.
float percentile(std::vector<float>& latencies, double percent) {
    if (latencies.empty()) return 0;
    const double rank = std::ceil(percent / 100 * static_cast<double>(latencies.size()));
    const auto nth = latencies.begin() + std::max(static_cast<std::ptrdiff_t>(rank), 1L) - 1;
    std::nth_element(latencies.begin(), nth, latencies.end());
    return *nth;
}

double growth_percent(std::size_t before, std::size_t after) {
    if (before == 0) return 0;
    return (static_cast<double>(after) / static_cast<double>(before) - 1) * 100;
}

}  // namespace

std::chrono::milliseconds progress_interval() {
    return on_terminal() ? 500ms : 10s;
}

void print_progress(const Progress& progress) {
    fmt::print("{}{:4.0f} s: {} tasks answered, {} in flight, {} stops, {} KiB{}",
               on_terminal() ? "\r\x1b[K" : "", Seconds(progress.elapsed).count(),
               progress.answered, progress.in_flight, progress.stops, progress.memory_kib,
               on_terminal() ? "" : "\n");
    std::fflush(stdout);
}

void print_errors(const std::string& errors) {
    if (!errors.empty()) fmt::print("\n\nThe service wrote to standard error:\n{}\n", errors);
}

void print_report(Report report) {
    const TaskBook& tasks = *report.tasks;
    const double loaded = Seconds(report.loaded).count();
    fmt::print("{}\n", on_terminal() ? "\n" : "");
    print_row("Duration", "{:.1f} s, of which {:.1f} s under load",
              Seconds(report.duration).count(), loaded);
    print_row("Connections", "{}; the Manager stopped {} times after draining, {} times abruptly;",
              report.connections, report.manager_stops_graceful, report.manager_stops_abrupt);
    print_row("", "the service started over {} times after draining, {} times abruptly",
              report.leaves_graceful, report.leaves_abrupt);
    print_row("Sessions",
              "of their services {} started, {} ready, {} ended; {} of these only by a later stop",
              report.sessions->started(), report.sessions->readied(), report.sessions->ended(),
              report.sessions->left());
    print_row("Tasks", "{} sent, {} ran, {} answered; {} rejected, {} of them while decoding",
              tasks.sent(), tasks.ran(), tasks.answered(), tasks.rejected(), report.undecodable);
    print_row("", "{} cut off: the replies of {} could not be sent, {} were never read",
              tasks.cut_off(), tasks.lost(), tasks.never_ran());
    print_row("", "{:.0f} per second under load; latency p50 {:.3f} ms, p99 {:.3f} ms",
              static_cast<double>(tasks.answered()) / std::max(loaded, 0.001),
              percentile(report.latencies, 50), percentile(report.latencies, 99));
    const QuestionBook& questions = *report.questions;
    print_row("Queries", "{} asked, {} answered, {} without an answer",
              questions.answered() + questions.wrong() + questions.unanswered(),
              questions.answered(), questions.unanswered());
    print_row("Notices", "{} sent, {} came to all services, {} were never read",
              report.notices->sent(), report.notices->complete(), report.notices->unread());
    print_row("Markers", "{} sent and received", report.markers->complete());
    print_row("Memory", "{} KiB after the warm-up, {} KiB at last ({:+.1f} %), at most {} KiB",
              report.warm.memory_kib, report.last.memory_kib,
              growth_percent(report.warm.memory_kib, report.last.memory_kib),
              report.highest.memory_kib);
    print_row("Threads", "{} after the warm-up, {} at last", report.warm.threads,
              report.last.threads);
    print_row("Descriptors", "{} after the warm-up, {} at last", report.warm.descriptors,
              report.last.descriptors);
    fmt::print("\n");
}

}  // namespace soak
