// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "manager/base/file_descriptor.h"
#include "manager/console/console.h"

namespace manager {

/// Runs a service and shows what it prints, line by line. Its input is empty, and signals of the
/// terminal do not reach it. Not thread-safe.
class ServiceProcess {
  public:
    /// `on_end` is called on a thread of its own when it has ended and its output is shown. Throws
    /// ManagerError if it cannot be started.
    ServiceProcess(std::vector<std::string> command, Console& console,
                   std::function<void()> on_end);
    /// Ends it, with SIGTERM and, after 5 s, with SIGKILL.
    ~ServiceProcess() { end(); }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// As the destructor. Returns its exit status, 128+N after signal N, or 0 if it had to be
    /// ended.
    int end();

  private:
    void watch(Console& console, const std::function<void()>& on_end);

    FileDescriptor output_;
    FileDescriptor process_;
    pid_t pid_ = 0;
    std::thread thread_;
};

}  // namespace manager
