// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace manager {

/// The Manager cannot do what was asked of it; what() is a sentence for its user.
struct ManagerError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// With the reason for which the last call of the system has failed.
inline ManagerError system_failure(const std::string& what) {
    return ManagerError(what + ": " + std::strerror(errno));
}

/// A command is not written as it should be; what() says what was expected.
struct BadCommand : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A command or a replay did not do what it is for; what() says what was expected.
struct CommandFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace manager
