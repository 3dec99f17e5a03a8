#pragma once

#include <fstream>
#include <mutex>
#include <string>

#include "manager/simulation/event.h"

namespace manager {

/// Writes the conversation to a file, in the lines of json_lines.h. Thread-safety: every member may
/// be called from any thread.
class Recorder {
  public:
    /// Begins a new file, in place of one that exists, and ends the one before as stop() does.
    /// Throws ManagerError if it cannot be written.
    void start(const std::string& file);

    /// Ends the recording, if there is one. Throws ManagerError if a part of it is lost, as on a
    /// full disk.
    void stop();

    void add(const Event& event);

  private:
    std::mutex mutex_;
    std::string name_;
    std::ofstream file_;
};

}  // namespace manager
