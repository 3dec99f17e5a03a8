// The C library as the client sees it: the fuzzer stands in for the functions by which the client
// starts threads, receives, sends and pauses, so that it knows when the client has come to rest,
// sees what it sends and need not wait.
//
// Thread-safe, but for the two that start and end a connection.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Takes a packet that the client sends. Runs on the sending thread, for one packet at a time.
using PacketSink = void (*)(const std::string& packet);
void set_packet_sink(PacketSink sink);

// As long as it lives, threads that the calling thread starts are the client's, and so are those
// that these start.
class ClientThreadsScope {
  public:
    ClientThreadsScope();
    ~ClientThreadsScope();
    ClientThreadsScope(const ClientThreadsScope&) = delete;
    ClientThreadsScope& operator=(const ClientThreadsScope&) = delete;
};

// Begins to count what the receive thread asks for. There is no thread of the client.
void expect_new_connection();

// Waits until the client's only thread is the receive thread and asks for a packet after it was
// given `given`, or until it has no thread at all. Returns whether it has one.
bool await_rest(std::uint64_t given);

// Waits until the client has no thread.
void await_end_of_threads();
