// SPDX-License-Identifier: Apache-2.0
// What the handler of a message has the receive thread do next.

#pragma once

enum class AfterMessage {
    kClearBuffer,  // the usual: wipe the message and receive the next
    kKeepBuffer,   // receive the next
    kGrowBuffer,   // make room for the larger messages of sessions, then as usual
    kEndThread,
};
