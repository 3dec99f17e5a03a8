// SPDX-License-Identifier: Apache-2.0
// The one connection to the Manager.
//
// The connection changes with gConnectMutex held, and with gSendMutex, which sends hold, from when
// the former socket has been shut down. Farewells are sent without the latter, and no lock is held
// while a socket connects: neither a Manager that accepts nobody nor one that does not read keeps
// anybody from closing. The
// receive thread shares the ownership of the socket: its descriptor is closed only when that thread
// has let go of it too, so that a pending receive never reads from a later connection of the same
// number.

#pragma once

#include <cstdint>
#include <memory>

#include "client/IVexaClient.h"

class ManagerSocket {
  public:
    // Opens it. Where that fails, its descriptor is -1 and errno says why.
    ManagerSocket();
    ~ManagerSocket();
    ManagerSocket(const ManagerSocket&) = delete;
    ManagerSocket& operator=(const ManagerSocket&) = delete;

    int fd() const { return fd_; }

  private:
    const int fd_;
};

// Returns the open connection, null if there is none.
std::shared_ptr<ManagerSocket> current_connection() EXCLUDES(gSendMutex);

// Returns whether there is a connection whose other end is still open.
bool is_connected() EXCLUDES(gConnectMutex);

// Connects unless there is such a connection, on which nothing has come that nobody has read: it
// would be taken for answers to what is asked next. To be called where no receive thread reads.
// Returns 0, or -1 with a log line; waits 20 s at most for a Manager whose queue of connections is
// full.
int open_connection() EXCLUDES(gConnectMutex, gSendMutex);

// Sends what is said to the Manager before the connection is closed. Waits for no other send, and
// only for a moment for a Manager that does not read. Returns 0, or -1 with a log line.
int send_farewell(const char* msg) EXCLUDES(gConnectMutex);

// Closes the connection, if there is one, without a word to the Manager.
void close_connection() EXCLUDES(gConnectMutex, gSendMutex);

// Disconnects if `socket` is still the connection. Returns whether it was; if not, this process has
// closed it itself.
bool close_lost_connection(const std::shared_ptr<ManagerSocket>& socket)
    EXCLUDES(gConnectMutex, gSendMutex);

enum class Reconnection { kDone, kTimedOut, kNotWanted };

// As reconnect_to_manager(), but gives up, without a log line, when `life` is over.
Reconnection reconnect_in(Life life) EXCLUDES(gConnectMutex, gSendMutex);
