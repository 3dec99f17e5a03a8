// What the Manager's side and the service process agree upon: the services, the contents of
// questions, notices and tasks, which follow from a number, and the memory that both have.

#pragma once

#include <vexon2_0.h>

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
constexpr std::uint32_t kSubsystems = 3;  // of each service: 1, 2, 3
constexpr unsigned kQuestioners = 8;
constexpr unsigned kInFlight = 64;  // tasks

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

constexpr char kMarkerPrefix[] = "soak marker ";

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
// that they outlive a stop. Now and then as many as may be under way take theirs at the same time,
// so that the process has had as many threads at once as it will ever have when it is warm.
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

// Memory of both processes, zero at first. The service counts what it is told of and does, the
// Manager's side judges that.
struct Shared {
    std::atomic<char> order;  // see service.cpp; 0 when it has been carried out
    Counter ready;            // times that all services were ready
    Counter disturbances;     // odd from before a stop until the service is ready again
    std::array<Outcome, 1 << 16> outcomes;
    Outcome& outcome_of(std::uint64_t task) { return outcomes[task % outcomes.size()]; }
    std::array<Sequence, kOpcodes.size()> notices;  // that came to each service
    std::array<Counter, 8> told;                    // by status
    Counter rejected_ran;                           // tasks named "rejected" that ran
    Counter wrong_sessions;  // told out of order, or in the table after the end
    Counter wrong_notices;   // not the next one, or not as that is
    Counter wrong_queries;   // with the answer to another, or none without a stop
    Counter wrong_lives;     // calls and callbacks of one life that met another
    Counter queries, answered_queries, markers;  // markers: that were sent
    std::array<Counter, 7> receive_ends;         // by reason
    Counter calls, lives, last_opcode;           // in rounds of chance
};

// Runs the service on the memory until the last order. `seed` is that of its chances.
void run_service(Shared& shared, unsigned seed);

}  // namespace soak
