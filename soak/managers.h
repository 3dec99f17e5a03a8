// The Manager of the soak test, at the plain and at the dedicated socket.
//
// Thread-safety: used by one thread. The inbox is filled from others.

#pragma once

#include <memory>
#include <string>

#include "inbox.h"
#include "manager/Manager.h"

namespace soak {

// Answers by itself what a service asks. Puts into the inbox what the service sends else, and the
// tasks and notices when they have left.
class Managers {
  public:
    explicit Managers(Inbox& inbox) : inbox_(inbox) {}

    // A new start has new objects: those of before have logged each packet.
    void start();

    // What clients have sent until the end of their connections is in the inbox afterwards.
    void stop();

    // Sends to the service, if there is one.
    void send(const std::string& text);

  private:
    std::unique_ptr<manager::SimulatedManager> open(const char* path);

    Inbox& inbox_;
    std::unique_ptr<manager::SimulatedManager> plain_;
    std::unique_ptr<manager::SimulatedManager> dedicated_;
};

}  // namespace soak
