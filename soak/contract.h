// What the Manager's side and the service process agree upon beforehand: the services, and the
// contents of questions, answers and notices. All of it follows from a number, so that either side
// can tell a wrong content by itself. Constants and pure functions only: for any thread.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace soak {

struct Service {
    std::uint32_t opcode;
    std::uint32_t subsystems;  // numbered from 1
};

constexpr std::array<Service, 3> kServices{{{0x1a, 2}, {0x2b, 1}, {0x1c4, 3}}};

constexpr std::uint64_t hash_of(std::string_view text) {
    std::uint64_t hash = 14695981039346656037U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    return hash;
}

inline std::uint64_t hash_of(std::uint64_t number) {
    return hash_of("number " + std::to_string(number));
}

// ---------------------------------------------------------------------------------------------
// Sessions

// The service refuses to start these.
constexpr bool is_refused_session(std::uint64_t session) {
    return session % 16 == 5;
}

// Tasks for sessions that have ended are for this subsystem, and no others are. The library's log
// tells whether such a session is still in its table; this is how a line ends that says so.
constexpr std::uint32_t kEndedProbeSubsystem = 98;
constexpr std::string_view kEndedProbe = "::98";

// ---------------------------------------------------------------------------------------------
// Tasks

// A function of this name followed by a number takes that many milliseconds.
constexpr std::string_view kNap = "nap_";

// ---------------------------------------------------------------------------------------------
// Questions, by the number of a name

constexpr std::uint64_t kNames = 128;

inline std::string permission_name(std::uint64_t number) {
    return "SOAK_PERMISSION_" + std::to_string(number);
}

inline bool is_granted(std::uint64_t number) {
    return hash_of(number) % 2 == 0;
}

inline std::string info_name(std::uint64_t number) {
    return "soak.info." + std::to_string(number);
}

inline bool is_known(std::uint64_t number) {
    return number % 5 != 0;
}

inline std::string info_value(std::uint64_t number) {
    return std::to_string(number) + ": " + std::string(number, '#');
}

inline std::string info_text(std::uint64_t number) {
    return (is_known(number) ? "SUCCESS:" : "ERROR:") + info_value(number);
}

// ---------------------------------------------------------------------------------------------
// Notices, by their number

enum class NoticeKind { kPermission, kState, kSetting };

struct Notice {
    NoticeKind kind;
    std::string name;
    std::string value;  // of a permission: unused
    bool granted;       // of a permission
    std::uint32_t session;
    std::string package;
};

constexpr std::string_view kNoticePrefix = "soak.notice.";

inline Notice notice_of(std::uint64_t number) {
    const std::uint64_t hash = hash_of(number);
    return {
        static_cast<NoticeKind>(number % 3), std::string(kNoticePrefix) + std::to_string(number),
        "value " + std::to_string(hash),     hash % 2 == 0,
        static_cast<std::uint32_t>(hash),    "package." + std::to_string(hash % 1000)};
}

// ---------------------------------------------------------------------------------------------
// Markers

constexpr std::string_view kMarkerPrefix = "soak marker ";

}  // namespace soak
