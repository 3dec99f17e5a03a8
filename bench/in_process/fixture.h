// The library inside this process, without a socket and, where wanted, without threads.

#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

#include "vexon2_0.h"

namespace bench {

// Discards the log and sets the level at which services log. Until then nothing is to be called.
void prepare_library();

// Makes the services of opcodes kOpcode, kOpcode + 1, ... ready, and the sessions kSession,
// kSession + 1, ... for the first of them. Nothing else is ready afterwards.
void set_tables(std::size_t services, std::size_t sessions, vexon_exec_callback_t task);

// While such an object lives, this thread runs what it would start a thread for by itself.
class InlineThreads {
  public:
    InlineThreads();
    ~InlineThreads();
    InlineThreads(const InlineThreads&) = delete;
    InlineThreads& operator=(const InlineThreads&) = delete;
};

// Waits until the library has sent as many packets as that since the process began.
void wait_for_packets(std::uint64_t count);
std::uint64_t packets_sent();

// Parses text that is known to be JSON.
Json::Value parsed(const std::string& text);

}  // namespace bench
