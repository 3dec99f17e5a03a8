// What the Manager's side and the service process agree upon: the services, the contents of
// questions and notices, which follow from a number, and the memory that both have.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace soak {

struct Service {
    std::uint32_t opcode;
    std::uint32_t subsystems;  // numbered from 1
};

constexpr std::array<Service, 3> kServices{{{0x1a, 2}, {0x2b, 1}, {0x1c4, 3}}};
constexpr unsigned kQuestioners = 8;

constexpr std::uint64_t hash_of(std::string_view text) {
    std::uint64_t hash = 14695981039346656037U;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    return hash;
}

// Returns the number that follows `key` in `text`, 0 if it is not there.
inline std::uint64_t number_after(const std::string& text, std::string_view key) {
    const std::size_t at = text.find(key);
    return at == std::string::npos ? 0 : std::strtoull(&text[at] + key.size(), nullptr, 10);
}

// The service refuses to start these.
constexpr bool is_refused_session(std::uint64_t session) {
    return session % 16 == 5;
}

// Tasks for sessions that have ended are for this subsystem, and no others are. The library's log
// tells whether such a session is still in its table; this is how a line ends that says so.
constexpr std::uint32_t kEndedProbeSubsystem = 98;
constexpr std::string_view kEndedProbe = "::98";

// A function of this name followed by a number takes that many milliseconds.
constexpr std::string_view kNap = "nap_";
constexpr std::string_view kMarkerPrefix = "soak marker ";
constexpr std::string_view kNoticePrefix = "soak.notice.";

// Permissions and information by number, under the same names. Each fifth is not known.
constexpr std::uint64_t kNames = 128;

inline std::string name_of(std::uint64_t number) {
    return "soak.name." + std::to_string(number);
}

inline bool is_granted(std::uint64_t number) {
    return hash_of(name_of(number)) % 2 == 0;
}

inline std::string info_value(std::uint64_t number) {
    return std::to_string(number) + ": " + std::string(number, '#');
}

inline std::string info_text(std::uint64_t number) {
    return (number % 5 == 0 ? "ERROR:" : "SUCCESS:") + info_value(number);
}

struct Notice {
    std::uint64_t kind;  // 0: of a permission, 1: of a state, 2: of a setting
    std::string name;
    std::string value;
    bool granted;
    std::uint32_t session;
    std::string package;
};

inline Notice notice_of(std::uint64_t number) {
    const std::string name = std::string(kNoticePrefix) + std::to_string(number);
    const std::uint64_t hash = hash_of(name);
    const std::string digits = std::to_string(hash);
    return {number % 3,
            name,
            "value " + digits,
            hash % 2 == 0,
            static_cast<std::uint32_t>(hash),
            "package." + digits};
}

// A counter for each of the latest things of a kind, by its number.
using Counter = std::atomic<std::uint32_t>;
template <std::size_t size>
struct Latest {
    std::array<Counter, size> counters;
    Counter& operator[](std::uint64_t number) { return counters[number % size]; }
};

// Memory of both processes, zero at first; descriptor 3 of the service. The service counts what it
// is told of and does, the Manager's side judges that.
struct Shared {
    std::atomic<char> order;  // see service.cpp; 0 when it has been carried out
    Counter ready;            // times that all services were ready
    Counter disturbances;     // odd from before a stop until the service is ready again
    Latest<1 << 16> ran;      // tasks by transaction: runs
    Latest<1 << 16> lost;     // replies that could not be sent
    Counter rejected_ran;     // tasks named "rejected" that ran
    Latest<1 << 12> notices;  // by number: in 4 bits for each service, how often it was told
    Latest<1 << 12> starts;   // sessions by number: services that were told so
    Latest<1 << 12> readies;
    Latest<1 << 12> ends;
    Counter wrong_sessions;  // told in another order, or in the table after the end
    Counter wrong_notices;   // not those of their number
    Counter wrong_queries;   // with the answer to another, or none without a stop
    Counter queries, answered_queries;
    std::array<Counter, kQuestioners> markers;  // that questioners have sent
    Counter losses, returns;                    // of the Manager, that the service was told of
    std::array<Counter, 7> receive_ends;        // by reason
    Counter calls, lives;                       // in rounds of chance
};

}  // namespace soak
