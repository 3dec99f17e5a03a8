#pragma once

#include <optional>
#include <string>

#include "manager/base/file_descriptor.h"

namespace manager {

// None of these blocks.

/// Accepts a connection that waits, prepared for packets of the largest size the system allows us.
/// Returns an invalid descriptor if none waits.
FileDescriptor accept_connection(int listener);

/// The size in bytes of the largest packet that can be sent.
std::size_t max_packet_size(int connection);

/// Receives a packet of any size, if there is one. Returns false once there will be no more.
bool receive_packet(int connection, std::optional<std::string>& packet);

}  // namespace manager
