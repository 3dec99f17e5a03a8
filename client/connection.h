// The one connection to the Manager.
//
// Opening and closing are serialised by gConnectMutex, sends by gSendMutex. The receive thread
// shares the ownership of the socket: its descriptor is closed only when that thread has let go of
// it too, so that a pending receive never reads from a later connection of the same number.

#pragma once

#include <unistd.h>

#include <cstdint>
#include <memory>

#include "client/IVexaClient.h"

class ManagerSocket {
  public:
    explicit ManagerSocket(int fd) : fd_(fd) {}
    ~ManagerSocket() { ::close(fd_); }
    ManagerSocket(const ManagerSocket&) = delete;
    ManagerSocket& operator=(const ManagerSocket&) = delete;

    int fd() const { return fd_; }

  private:
    const int fd_;
};

// Returns the open connection, null if there is none.
std::shared_ptr<ManagerSocket> current_connection() EXCLUDES(gSendMutex);

// Connects unless there is a connection. Returns 0, or -1 with a log line.
int open_connection() EXCLUDES(gConnectMutex, gSendMutex);

// Disconnects if `socket` is still the connection. Returns whether it was; if not, this process has
// closed it itself.
bool close_lost_connection(const std::shared_ptr<ManagerSocket>& socket)
    EXCLUDES(gConnectMutex, gSendMutex);

// As reconnect_to_manager(), for the receive thread of number `receiver`: gives up with -1, without
// a log line, when that is no longer gReceiver.
int reconnect_as(std::uint32_t receiver) EXCLUDES(gConnectMutex, gSendMutex);
