// What the service process tells the Manager's side of itself, over a pipe at its standard output.
// A record is written at once and whole, and records of one thread keep their order.

#pragma once

#include <cstdint>

namespace soak {

enum class RecordKind : std::uint32_t {
    kReady,         // all services are ready; first: the time
    kTaskRan,       // an exec callback ran; first: its transaction
    kReplyLost,     // a reply could not be sent; first: its transaction
    kSession,       // detail: vexa_status_t, first: session, second: opcode and subsystem
    kStillInTable,  // the library still knows a session that has ended
    kTerminated,    // told that the Manager is gone
    kReconnected,   // told that the Manager is back
    kNotice,        // detail: index of the service, first: number of the notice
    kWrongNotice,   // a notice with other contents than its number has
    kAnswered,      // a query got its own answer
    kWrongAnswer,   // a query got another answer
    kUnanswered,    // a query got none; first and second: the times of its begin and end
    kTrimmed,       // has given back the memory that is not in use
    kMarkerSent,    // first: number of the marker
};

// Times are in nanoseconds of the monotonic clock, which the processes share.
struct Record {
    RecordKind kind;
    std::uint32_t detail = 0;
    std::uint64_t first = 0;
    std::uint64_t second = 0;
};

}  // namespace soak
