// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "manager/base/error.h"
#include "manager/console/json_lines.h"

namespace manager {

/// Writes the conversation to a file, in the lines of json_lines.h. Thread-safety: every member may
/// be called from any thread.
class Recorder {
  public:
    /// Begins a new file, in place of one that exists, and ends the one before as stop() does.
    /// Throws ManagerError if it cannot be written.
    void start(const std::string& name) {
        stop();
        const std::lock_guard lock(mutex_);
        name_ = name;
        file_ = std::ofstream(name, std::ios::binary);
        if (!file_.is_open()) throw system_failure("cannot write " + name);
    }

    /// Ends the recording, if there is one. Throws ManagerError if a part of it is lost, as on a
    /// full disk.
    void stop() {
        const std::lock_guard lock(mutex_);
        if (!file_.is_open()) return;
        file_.close();
        if (!file_) throw ManagerError("the recording " + name_ + " is not complete");
    }

    void add(const Event& event) {
        const std::lock_guard lock(mutex_);
        // Flushed, so that a recording is of use even if the program is killed.
        if (file_.is_open()) file_ << json_line(event) << std::endl;
    }

  private:
    std::mutex mutex_;
    std::string name_;
    std::ofstream file_;
};

/// An event of a recorded conversation. Its time is that of the event before if the line has none;
/// the client has the number that it had then.
struct RecordedEvent : Event {
    /// The number of its line, from 1.
    std::size_t line;
    /// In UTC, as it is written.
    std::string written_time;
};

/// Reads a file that the recorder wrote, or what the program printed as JSON: lines of events that
/// are no part of the conversation are passed over. Left out are clients that exchanged no packet.
/// Calls `wrong` with a message for each line that is wrong, and goes on if it returns.
/// Throws ManagerError if the file cannot be read.
std::vector<RecordedEvent> read_events(const std::string& file,
                                       const std::function<void(const std::string&)>& wrong);

/// Reads a recording to replay. Left out is, too, that the Manager closed connections at last,
/// which it does whenever it ends. Throws ManagerError if the file cannot be read, a line is wrong
/// or there is no packet in it.
std::vector<RecordedEvent> read_recording(const std::string& file);

}  // namespace manager
