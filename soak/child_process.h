// The service process, watched from outside.
//
// Thread-safety: kill() may be called from any thread, all else from one thread.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "manager/file_descriptor.h"
#include "record.h"

namespace soak {

// What a process takes up.
struct Usage {
    std::size_t memory_kib = 0;  // resident
    std::size_t threads = 0;
    std::size_t descriptors = 0;
};

class ChildProcess {
  public:
    using Handler = std::function<void(const Record&)>;

    // Starts the program. `on_record` is called with each of its records, on a thread of the
    // object's own. Throws std::system_error if the program cannot be started.
    ChildProcess(const std::string& program, Handler on_record);
    // Ends the process if it runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void order(char letter);
    // Tells the process that there are no more orders.
    void end_orders() { orders_ = manager::FileDescriptor(); }
    void kill() const;

    // Waits until the process has ended and all its records were handled. Returns its wait status,
    // or nothing after `limit`.
    std::optional<int> await_end(std::chrono::milliseconds limit);
    // Whether it runs no more.
    bool has_ended();

    Usage usage() const;
    // What it wrote to standard error.
    std::string errors() const;

  private:
    void read_records(const Handler& on_record) const;

    manager::FileDescriptor orders_;
    manager::FileDescriptor records_;
    manager::FileDescriptor errors_;
    pid_t pid_ = -1;
    std::optional<int> status_;
    std::thread reader_;
};

}  // namespace soak
