#include "manager/calls/load.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace manager {
namespace {

using Clock = std::chrono::steady_clock;

/// The tasks that wait for their replies, with their deadlines. Transactions are numbered upwards,
/// so the first is the one that was sent first.
using InFlight = std::map<std::int64_t, Clock::time_point>;

std::optional<Reply> next_reply(SimulatedManager& manager, const InFlight& in_flight) {
    const auto left = in_flight.begin()->second - Clock::now();
    // Rounded up: to wait for nothing until the deadline comes would take the processor.
    return manager.await_any_reply(
        std::max(std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(0)));
}

}  // namespace

std::string LoadResult::summary() const {
    const double seconds = std::chrono::duration<double>(duration).count();
    return fmt::format(
        "{} of {} tasks answered in {:.3f} s ({:.0f}/s), {} with a status other than 0; latency "
        "p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms",
        latencies.count(), sent, seconds, static_cast<double>(latencies.count()) / seconds, failed,
        latencies.percentile(50).count(), latencies.percentile(99).count(),
        latencies.max().count());
}

LoadResult run_load(SimulatedManager& manager, const Task& task, const LoadOptions& options,
                    const std::function<void(std::size_t)>& progress) {
    LoadResult result;
    InFlight in_flight;
    bool timed_out = false;
    const Clock::time_point begin = Clock::now();
    while (true) {
        while (!timed_out && result.sent < options.count && in_flight.size() < options.in_flight) {
            in_flight.emplace(manager.exec_task(task), Clock::now() + options.timeout);
            ++result.sent;
        }
        if (in_flight.empty()) break;
        const auto reply = next_reply(manager, in_flight);
        if (!reply) {
            timed_out = true;
            in_flight.erase(in_flight.begin());
        } else if (in_flight.erase(reply->transaction) != 0) {
            result.latencies.add(reply->latency);
            if (reply->status != 0) ++result.failed;
            progress(static_cast<std::size_t>(result.latencies.count()));
        }
    }
    result.duration = Clock::now() - begin;
    return result;
}

}  // namespace manager
