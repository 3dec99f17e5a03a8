// SPDX-License-Identifier: Apache-2.0
// The receive thread, the only reader of the connection.

#pragma once

#include <memory>

#include "client/IVexaClient.h"

// Body of the thread: receives and handles messages until the connection ends, recovers the
// connection once if the Manager closed it, and tells the observer of vexa_svc_on_receive_end() at
// last. Reads no other connection than `socket` and does nothing in any other life than `life`,
// however late the thread is. Throws nothing. Returns 0.
int recv_msg_from_mgr(Life life, std::shared_ptr<ManagerSocket> socket);
