// What the Manager's side and the service process agree upon: the services, the contents of
// questions, notices and tasks, which follow from a number, and the memory that both have.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

namespace soak {

using Random = std::mt19937_64;

struct Service {
    std::uint32_t opcode;
    std::uint32_t subsystems;  // numbered from 1
};

constexpr std::array<Service, 3> kServices{{{0x1a, 2}, {0x2b, 1}, {0x1c4, 3}}};
constexpr unsigned kQuestioners = 8;
constexpr unsigned kInFlight = 64;  // tasks

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

constexpr std::string_view kMarkerPrefix = "soak marker ";
constexpr std::string_view kNoticePrefix = "soak.notice.";

// A permission and a piece of information under the same name. Each fifth information is not known.
struct Name {
    static constexpr std::uint64_t kCount = 128;
    std::uint64_t number;
    std::string text() const { return "soak.name." + std::to_string(number); }
    bool is_granted() const { return hash_of(text()) % 2 == 0; }
    bool is_known() const { return number % 5 != 0; }
    std::string value() const { return std::to_string(number) + ": " + std::string(number, '#'); }
    std::string info() const { return (is_known() ? "SUCCESS:" : "ERROR:") + value(); }
};

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
    const auto session = static_cast<std::uint32_t>(hash);
    const std::string package = "package." + std::to_string(hash);
    return {number % 3, name, "value of " + package, hash % 2 == 0, session, package};
}

// How many milliseconds a task takes. Most take no time of their own, some a little, few so much
// that they outlive a stop. Now and then as many as may be under way take theirs at the same time,
// so that the process has had as many threads at once as it will ever have when it is warm.
constexpr std::uint64_t nap_of(std::uint64_t task) {
    if (task % 4096 < kInFlight) return 150;
    if (task % 512 == 100) return 300;
    return task % 32 == 1 ? task % 19 : 0;
}

using Counter = std::atomic<std::uint32_t>;

// A value in JSON, how the service reads it, and the library's number for its type. Each @ stands
// for two digits.
struct Shape {
    const char* json;
    const char* read;
    int type;
};

constexpr Shape kShapes[] = {
    {R"("uint8","value":1@)", "1@", 1},
    {R"("uint16","value":650@)", "650@", 2},
    {R"("uint32","value":42949671@)", "42949671@", 3},
    {R"("uint64","value":184467440737095515@)", "184467440737095515@", 4},
    {R"("int8","value":-@)", "-@", 5},
    {R"("int16","value":-326@)", "-326@", 6},
    {R"("int32","value":-21474835@)", "-21474835@", 7},
    {R"("int64","value":-92233720368547757@)", "-92233720368547757@", 8},
    {R"("double","value":-@.125)", "-@.125000", 9},
    {R"("string","value":"@\"\\\n@é")", "@\"\\\n@é", 10},
    {R"("boolean","value":true)", "1", 11},
    {R"("enum","value":-3@)", "-3@", 12},
    {R"("bnry_blb","value":"@")", "@", 13},
    {R"("vector","vec_type":"uint8","value":[1@,@])", "1@,@,", 17},
    {R"("vector","vec_type":"uint16","value":[650@,@])", "650@,@,", 18},
    {R"("vector","vec_type":"uint32","value":[42949671@])", "42949671@,", 19},
    {R"("vector","vec_type":"uint64","value":[184467440737095515@])", "184467440737095515@,", 20},
    {R"("vector","vec_type":"int8","value":[-@,@,0])", "-@,@,0,", 21},
    {R"("vector","vec_type":"int16","value":[-326@])", "-326@,", 22},
    {R"("vector","vec_type":"int32","value":[-21474835@])", "-21474835@,", 23},
    {R"("vector","vec_type":"int64","value":[])", "", 24},
    {R"("vector","vec_type":"double","value":[@.5,-0.25])", "@.500000,-0.250000,", 25},
    {R"("vector","vec_type":"string","value":["","@"])", ",@,", 26},
    {R"("vector","vec_type":"boolean","value":[true,false])", "1,0,", 27},
    {R"("vector","vec_type":"enum","value":[3@])", "3@,", 28},
    {R"("vector","vec_type":"bnry_blb","value":["@"])", "@,", 29},
    {R"("struct","members":[{"id":0,"type":"int32","value":@},{"id":1,"type":"struct","members":[]}])",
     "{0=@ 1={} }", 16},
    {R"("vector","vec_type":"struct","value":[{"members":[{"id":0,"type":"string","value":"@"}]},)"
     R"({"members":[]}])",
     "{0=@ }{}", 30},
};

struct Arguments {
    std::size_t count;
    std::string json;
    std::uint64_t digest;  // what the service's digest_of() makes of them and the function
};

// The id of each is its position: that is how the library numbers structs. A few lists are long.
inline Arguments arguments_of(std::uint64_t task, const std::string& function) {
    Random random(task);
    const std::size_t count = task % 512 == 0 ? 300 : random() % 6;
    std::string json;
    std::string read;
    std::string types;
    for (std::size_t id = 0; id < count; ++id) {
        const Shape& shape = kShapes[random() % std::size(kShapes)];
        const std::string digits = std::to_string(10 + random() % 90);
        const auto filled = [&](const std::string& pattern) {
            std::string text;
            for (const char c : pattern) text += c == '@' ? digits : std::string(1, c);
            return text;
        };
        const std::string number = std::to_string(id);
        json += (id == 0 ? R"({"id":)" : R"(,{"id":)") + number + R"(,"type":)" +
                filled(shape.json) + '}';
        read += number + '=' + filled(shape.read) + ' ';
        types += std::to_string(shape.type) + ' ';
    }
    const std::string head = function + ' ' + std::to_string(count);
    return {count, '[' + json + ']', hash_of(count == 0 ? head : head + '{' + read + '}' + types)};
}

// Arrays of arguments that the library refuses while it decodes them.
constexpr const char* kUndecodable[] = {
    R"([{"id":0,"type":"int32","value":7},{"id":1,"type":"string","value":5}])",
    R"([{"id":0,"type":"vector","vec_type":"int16","value":[1,2,40000]}])",
    R"([{"id":0,"type":"struct","members":[{"id":0,"type":"boolean","value":1}]}])", "[7]"};

// What has happened in the service to one of the numbered things: to a task in kRan and kNotSent,
// to a session, for each of its services, in kStarted, kReady and kEnded. A notice is counted by
// the service that was told of it.
enum Event { kRan = 0, kStarted = 0, kReady = 1, kEnded = 2, kNotSent = 3, kEvents = 4 };
using Tally = std::array<std::atomic<std::uint8_t>, kEvents>;

// Those of the latest of a kind.
struct Tallies {
    std::array<Tally, 1 << 16> slots;
    Tally& operator[](std::uint64_t number) { return slots[number % slots.size()]; }
};

// Memory of both processes, zero at first; descriptor 3 of the service. The service counts what it
// is told of and does, the Manager's side judges that.
struct Shared {
    std::atomic<char> order;  // see service.cpp; 0 when it has been carried out
    Counter ready;            // times that all services were ready
    Counter disturbances;     // odd from before a stop until the service is ready again
    Tallies tasks, notices, sessions;
    Counter rejected_ran;    // tasks named "rejected" that ran
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
