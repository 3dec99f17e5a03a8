// SPDX-License-Identifier: Apache-2.0
// The observer that is told when nobody receives any more, see vexa_svc_on_receive_end().

#pragma once

#include "client/IVexaClient.h"

// Tells the observer why the receive thread of `life` ends. If the life itself has ended, that was
// this process's doing, which is what the observer is told. To be called as that thread's last act,
// without locks held.
void tell_receive_end(Life life, vexa_receive_end_t reason) EXCLUDES(gReceiveEndMutex);
