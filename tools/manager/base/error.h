#pragma once

#include <stdexcept>

namespace manager {

/// The Manager cannot do what was asked of it; what() is a sentence for its user.
class ManagerError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace manager
