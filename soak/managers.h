// The Manager of the soak test, at the plain and at the dedicated socket.
//
// Thread-safety: used by one thread. The inbox is filled from others.

#pragma once

#include <memory>
#include <mutex>
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

    // Takes the client that has declared a service ready last for the one to send to. Another that
    // comes after it gets nothing until this is called again.
    void follow_service();

    // Sends to the service; what is meant for one that has gone is dropped.
    void send(const std::string& text);

  private:
    struct Client {
        manager::SimulatedManager* manager = nullptr;
        int number = 0;
    };

    std::unique_ptr<manager::SimulatedManager> open(const char* path);
    void note(manager::SimulatedManager* from, const manager::Packet& packet);

    Inbox& inbox_;
    Client service_;
    std::mutex mutex_;
    Client latest_;  // guarded by mutex_
    std::unique_ptr<manager::SimulatedManager> plain_;
    std::unique_ptr<manager::SimulatedManager> dedicated_;
};

}  // namespace soak
