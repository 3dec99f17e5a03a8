#include "manager/calls/statistics.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <vector>

#include "manager/base/json.h"
#include "manager/console/console.h"
#include "manager/simulation/messages.h"

namespace manager {
namespace {

constexpr std::size_t kMaxFunctions = 1000;
constexpr std::size_t kMaxPending = 131'072;

std::string text_of(const Json::Value& value) {
    return value.isString() ? value.asString() : "?";
}

const Row kHeading{"function",    "opcode", "calls",  "answered", "failed",
                   "outstanding", "p50 ms", "p99 ms", "max ms"};
// The columns before this one are texts, the others numbers.
constexpr std::size_t kFirstNumber = 2;

/// `none` if there are no latencies.
std::array<std::string, 3> milliseconds(const Latencies& latencies, const std::string& none) {
    if (latencies.count() == 0) return {none, none, none};
    const auto text = [](Milliseconds duration) { return fmt::format("{:.3f}", duration.count()); };
    return {text(latencies.percentile(50)), text(latencies.percentile(99)), text(latencies.max())};
}

}  // namespace

void CallStatistics::add(const Packet& packet, const Json::Value& message) {
    const auto head = read_reply(message);
    if (!head) return;
    const CallId id{packet.client, head->transaction};
    const std::lock_guard lock(mutex_);
    if (packet.kind == Kind::FromClient) {
        add_reply(id, head->status != 0, packet);
    } else {
        add_call(
            {text_of(member(member(message, "func"), "name")), text_of(member(message, "opcode"))},
            id, packet);
    }
}

CallStatistics::Figures& CallStatistics::row_of(const Function& function) {
    const bool is_full = rows_.size() >= kMaxFunctions && rows_.count(function) == 0;
    return is_full ? rows_[{"(others)", ""}] : rows_[function];
}

void CallStatistics::add_call(const Function& function, const CallId& id, const Packet& packet) {
    has_news_ = true;
    Figures& row = row_of(function);
    ++row.calls;
    // A transaction that is used again leaves the earlier call without a reply.
    if (const auto earlier = positions_.find(id); earlier != positions_.end()) {
        pending_.erase(earlier->second);
        positions_.erase(earlier);
    }
    positions_[id] = pending_.insert(pending_.end(), {id, &row, packet.time});
    if (pending_.size() <= kMaxPending) return;
    positions_.erase(pending_.front().id);
    pending_.pop_front();
}

void CallStatistics::add_reply(const CallId& id, bool failed, const Packet& packet) {
    const auto position = positions_.find(id);
    if (position == positions_.end()) return;
    has_news_ = true;
    const Pending& call = *position->second;
    call.row->latencies.add(packet.time - call.sent);
    if (failed) ++call.row->failed;
    pending_.erase(position->second);
    positions_.erase(position);
}

bool CallStatistics::has_news() const {
    const std::lock_guard lock(mutex_);
    return has_news_;
}

std::string CallStatistics::table() {
    const std::lock_guard lock(mutex_);
    has_news_ = false;
    if (rows_.empty()) return "no function was called";
    std::vector<Row> lines{kHeading};
    for (const auto& [function, row] : rows_) {
        const Latencies& latencies = row.latencies;
        const auto [p50, p99, max] = milliseconds(latencies, "-");
        lines.push_back({one_line(function.first), one_line(function.second),
                         std::to_string(row.calls), std::to_string(latencies.count()),
                         std::to_string(row.failed), std::to_string(row.calls - latencies.count()),
                         p50, p99, max});
    }
    return aligned(lines, kFirstNumber);
}

std::string CallStatistics::json() {
    const std::lock_guard lock(mutex_);
    has_news_ = false;
    std::vector<std::string> objects;
    for (const auto& [function, row] : rows_) {
        const Latencies& latencies = row.latencies;
        const auto [p50, p99, max] = milliseconds(latencies, "null");
        objects.push_back(fmt::format(
            R"({{"function":{},"opcode":{},"calls":{},"answered":{},"failed":{},"outstanding":{},)"
            R"("p50_ms":{},"p99_ms":{},"max_ms":{}}})",
            json_text(function.first), json_text(function.second), row.calls, latencies.count(),
            row.failed, row.calls - latencies.count(), p50, p99, max));
    }
    return fmt::format("[{}]", fmt::join(objects, ","));
}

}  // namespace manager
