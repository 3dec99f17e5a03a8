#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "manager/simulation/packet.h"

namespace manager {

/// Chooses packets. Copies share nothing that changes, so threads may use one at the same time.
class Matcher {
  public:
    /// Matches the packets whose text contains `text`.
    Matcher(std::string text);
    Matcher(const char* text) : Matcher(std::string(text)) {}

    /// Matches the packets for which `predicate(packet)` is true.
    template <typename Predicate,
              typename = std::enable_if_t<std::is_invocable_r_v<bool, Predicate, const Packet&>>,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<Predicate>, Matcher>>>
    Matcher(Predicate predicate)
        : matches_(std::move(predicate)), description_("fitting the predicate") {}

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
