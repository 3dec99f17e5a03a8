// The receive thread, the only reader of the connection.

#pragma once

#include "client/IVexaClient.h"

// Body of the thread: receives and handles messages until the connection ends, and recovers the
// connection once if the Manager closed it. Returns 0. Belongs to the receive thread that is
// gReceiver when it starts.
int recv_msg_from_mgr();

// Returns whether the caller runs on a receive thread, that is, inside a state callback.
bool on_receive_thread();

// The same, with a log line that `function` cannot wait there for an answer which that thread would
// have to receive.
bool refused_on_receive_thread(const char* function);

// Returns whether the caller runs on a receive thread whose connection was given up by this process
// (by vexa_svc_deinit(), say). Such a thread must not touch what may belong to a later connection.
// If the answer is no under a lock that vexa_svc_deinit() takes, too, the connection is still this
// thread's until that lock is released.
bool superseded();

// Returns whether a receive thread would take an answer of the Manager.
bool is_receiving() EXCLUDES(gInitMutex);

// Ends the waits of all callers for whom the receive thread of number `receiver` would have had to
// receive an answer. Does nothing if that thread has been superseded.
void stop_receiving(std::uint32_t receiver) EXCLUDES(gInitMutex);
