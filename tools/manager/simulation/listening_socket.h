// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>

#include "manager/base/file_descriptor.h"

namespace manager {

/// A socket that listens for packet connections at a path, and its file there. Not thread-safe.
class ListeningSocket {
  public:
    /// Listens nowhere.
    ListeningSocket() = default;

    /// Listens at `path`, which every user may connect to. Replaces the socket file that a dead
    /// process left behind; throws ManagerError if a live one listens there, naming it, or the path
    /// cannot be used. Of several Managers that begin at the same time one gets the path.
    explicit ListeningSocket(const std::string& path);

    int get() const { return socket_.get(); }

    /// Accepts a connection that waits, prepared for packets of the largest size the system allows
    /// us. Returns an invalid descriptor if none waits. Does not block.
    FileDescriptor accept() const;

    /// Removes the socket file, unless it is no longer this one's: somebody may have removed it and
    /// listen there in its place.
    void remove_file() const;

  private:
    FileDescriptor socket_;
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace manager
