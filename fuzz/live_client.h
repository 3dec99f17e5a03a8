#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/local_manager.h"

// The library in full operation: connected to a Manager in this process, with two services that
// are ready, sessions, and queries and registrations that wait for an answer. There is one object
// of it, used by one thread; the process runs in a private /dev.
class LiveClient {
  public:
    LiveClient();
    LiveClient(const LiveClient&) = delete;
    LiveClient& operator=(const LiveClient&) = delete;

    // Has the client handle the packets one after the other, waits until it is at rest, requires
    // that no lock is left taken and restores the state of before. The packet "EOF" stands for the
    // end of the Manager. No packet is empty.
    void handle(const std::vector<std::string>& packets);

  private:
    void start();
    void start_over();
    void offer(std::uint32_t opcode, const char* definition);
    bool give(const std::vector<std::string>& packets);
    void restore_state();

    LocalManager manager_;
    int service_id_ = -1;
    int notices_ = 0;  // what the services are handed as user data
};
