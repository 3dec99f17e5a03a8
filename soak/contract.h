// SPDX-License-Identifier: Apache-2.0
// What the Manager's side and the service process agree upon: the services, the contents of
// questions, notices and tasks, which follow from a number, and the memory that both have.

#pragma once

#include <vexon2_0_service.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

namespace soak {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using Random = std::mt19937_64;

constexpr std::array<std::uint32_t, 3> kOpcodes{0x1a, 0x2b, 0x1c4};
constexpr unsigned kInFlight = 64;  // tasks
constexpr char kMarkerPrefix[] = "soak marker ";

// Returns the number that follows `key` in `text`, 0 if it is not there.
inline std::uint64_t number_after(const std::string& text, std::string_view key) {
    const std::size_t at = text.find(key);
    return at == std::string::npos ? 0 : std::strtoull(&text[at + key.size()], nullptr, 10);
}

// The service refuses to start these.
constexpr bool is_refused_session(std::uint64_t session) {
    return session % 16 == 5;
}

// Tasks for sessions that have ended are for this subsystem, and no others are. The library's log
// tells whether such a session is still in its table; this is how a line ends that says so.
constexpr std::uint32_t kEndedProbeSubsystem = 98;
constexpr std::string_view kEndedProbe = "::98";

// The functions of each service: one for any arguments, which come back, one for those of fixed
// types, which do so as well, one that fails, and one whose tasks are to be rejected.
constexpr char kAny[] = "any", kTyped[] = "typed", kFailing[] = "failing", kRejected[] = "rejected";

// Permissions and pieces of information have the same names, which end in a number.
constexpr std::uint64_t kNames = 128;
constexpr char kNamePrefix[] = "soak.name.";

inline std::string permission_of(std::uint64_t name) {
    return name % 3 == 0 ? "granted" : "denied";
}

inline std::string info_of(std::uint64_t name) {
    return (name % 5 == 0 ? "ERROR:" : "SUCCESS:") + std::to_string(name) + std::string(name, '#');
}

// The number of a notice is its session, its package and its value. By turns they are of a
// permission, which is granted every other time, of a state and of a setting.
constexpr char kNoticePrefix[] = "soak.notice.";

// How many milliseconds a task takes. Most take no time of their own, some a little, few so much
// that they outlive a stop. As many as may be under way take theirs at the same time where a cycle
// begins, so that each connection has had as many threads at once as it will ever have.
constexpr Milliseconds nap_of(std::uint64_t task) {
    if (task % 4096 < kInFlight) return 150ms;
    if (task % 512 == 100) return 300ms;
    return Milliseconds(task % 32 == 1 ? task % 19 : 0);
}

using Counter = std::atomic<std::uint32_t>;

// What has happened to a task in the service.
struct Outcome {
    std::atomic<std::uint8_t> ran, not_sent;
};

// Why the service goes out of service, as its kit calls it, and, without a reason, that it is back.
enum Change { kClosed, kReset, kStopped, kBack };
constexpr std::array<std::string_view, 4> kChanges{"the Manager closed the connection",
                                                   "the Manager went away", "stopping", ""};

// Numbers that are to come in order, from 1 on, each once. At one time some may be missing.
struct Sequence {
    std::atomic<std::uint64_t> last;
    std::atomic<bool> may_skip;
    Counter count;
    bool accept(std::uint64_t number) {
        ++count;
        const std::uint64_t next = last.exchange(number) + 1;
        return may_skip.exchange(false) ? number >= next : number == next;
    }
};

// What must hold and the service sees. It writes these, with details, to standard error if not.
constexpr char kNotRejected[] = "tasks to be rejected neither ran nor were answered";
constexpr char kSession[] = "each session started, got ready and ended once, and left the table";
constexpr char kQuery[] = "each query got its own answer, or none around a stop";
constexpr char kNotice[] = "each notice came once, with its contents";
constexpr char kChance[] = "by chance no call hung, and nothing of one life got into another";

// Memory of both processes, zero at first. The service counts what it is told of and does, the
// Manager's side judges that.
struct Shared {
    std::atomic<char> order;  // see service.cpp; 0 when it has been carried out
    Counter turns;            // odd from when the service is ready until before a stop
    bool is_disturbed() const { return turns % 2 == 0; }
    std::array<Outcome, 1 << 16> outcomes;
    Outcome& outcome_of(std::uint64_t task) { return outcomes[task % outcomes.size()]; }
    Sequence notices;
    std::array<Counter, 8> events;  // by kind
    Counter& count_of(vexon::Event::Kind kind) { return events.at(static_cast<std::size_t>(kind)); }
    std::array<Counter, kChanges.size()> changes;
    Counter queries, answered_queries, markers;  // markers: that were sent
    Counter calls, lives, last_opcode;           // in rounds of chance
};

// Runs the service on the memory until the last order. `seed` is that of its chances.
void run_service(Shared& shared, unsigned seed);

}  // namespace soak
