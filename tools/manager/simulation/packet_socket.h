#pragma once

#include <string>

#include "manager/base/file_descriptor.h"

namespace manager {

/// Accepts a connection that waits, prepared for packets of the largest size the system allows us.
/// Returns an invalid descriptor if none waits. Does not block.
FileDescriptor accept_connection(int listener);

enum class SendResult { Sent, WouldBlock, Closed };

/// Sends one packet of no more than max_packet_size(). Does not block.
SendResult send_packet(int connection, const std::string& text);

/// Ends a connection in both directions, or a listener: the peer learns it, no more packets or
/// connections come, and those that came can still be received or accepted.
void end_connection(int socket);

/// The size in bytes of the largest packet that can be sent.
std::size_t max_packet_size(int connection);

struct Received {
    enum class Kind { Packet, Nothing, Closed };
    Kind kind;
    std::string text;
};

/// Receives one packet of any size. Does not block.
Received receive_packet(int connection);

}  // namespace manager
