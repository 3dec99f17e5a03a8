// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

#include "manager/simulation/event.h"

namespace manager {

/// Chooses packets. Copies share nothing that changes, so threads may use one at the same time.
class Matcher {
  public:
    /// Matches the packets whose text contains `text`.
    Matcher(const std::string& text);
    Matcher(const char* text) : Matcher(std::string(text)) {}

    /// Matches the packets for which the predicate is true.
    explicit Matcher(std::function<bool(const Packet&)> predicate, std::string description = "")
        : matches_(std::move(predicate)), description_(std::move(description)) {}

    /// Matches the packets that contain a match of a POSIX extended regular expression, however
    /// long the packet is. Throws std::invalid_argument if the expression is wrong.
    static Matcher regex(const std::string& expression);

    bool operator()(const Packet& packet) const { return matches_(packet); }
    /// What is matched, to follow the words "a packet".
    const std::string& description() const { return description_; }

  private:
    std::function<bool(const Packet&)> matches_;
    std::string description_;
};

}  // namespace manager
