// SPDX-License-Identifier: Apache-2.0
// A service process of a contender, and how it is called.

#pragma once

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "driver/caller.h"
#include "manager/base/file_descriptor.h"

namespace bench {

// A kind of service, by the name that tables show.
struct Contender {
    const char* name;
    const char* program;
    bool is_step;     // of the floor; all others are rivals
    int socket_type;  // of its standard input, whose other end the caller may use
    std::unique_ptr<Caller> (*make_caller)(int input);
};

// The name of the contender with which all others are compared.
constexpr char kFloor[] = "floor";

const std::vector<Contender>& contenders();

// A service that is ready for calls. Used by one thread.
struct Service {
    // Starts the contender's program, `under` another one's control if that is not empty. Needs a
    // /dev/socket of its own. Throws std::runtime_error.
    explicit Service(const Contender& kind, const std::vector<std::string>& under = {});
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Closes the service's standard input, which tells it to end, and waits until it has.
    ~Service();

    const Contender contender;
    pid_t pid = -1;
    clockid_t cpu_clock = 0;  // of all threads, those that have ended included
    manager::FileDescriptor input;
    std::unique_ptr<Caller> caller;  // null if the driver was built without what it needs
};

}  // namespace bench
