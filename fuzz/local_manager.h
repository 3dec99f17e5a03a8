#pragma once

#include <cstdint>
#include <string>

#include "manager/answers.h"
#include "manager/file_descriptor.h"
#include "manager/listening_socket.h"

// The least of a Manager that a client can connect to and be ready at. It keeps nothing of what it
// is told. Used by one thread, but for take(): packets that are not answered may come on others.
class LocalManager {
  public:
    // Listens at the Manager's real path.
    LocalManager();

    // Takes a packet of the client's, requires that it is JSON and answers it if it belongs to the
    // introduction.
    void take(const std::string& packet);

    // Sends a packet to the client. Returns whether there is room for it.
    bool send(const std::string& packet);

    // Closes the connection.
    void close();

    // How many packets were sent on the connection.
    std::uint64_t sent() const { return sent_; }

  private:
    void accept_latest();

    const manager::ListeningSocket listener_;
    manager::FileDescriptor connection_;
    manager::Answers answers_;
    std::uint64_t sent_ = 0;
};
