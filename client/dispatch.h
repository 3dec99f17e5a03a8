// From the "req_type" of a message to its handler.

#pragma once

#include <json/json.h>

// What the receive thread does when a message has been handled.
enum class AfterMessage {
    kClearBuffer,  // the usual: wipe the message and receive the next
    kKeepBuffer,   // receive the next
    kGrowBuffer,   // make room for the larger messages of sessions, then as usual
    kEndThread,
};

// Handles one message. Throws nothing: what a message makes fail is logged, and the message is
// dropped. Runs on the receive thread.
AfterMessage dispatch_message(const Json::Value& message);
