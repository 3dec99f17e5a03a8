#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <vector>

#include "manager/simulation/matcher.h"
#include "manager/simulation/packet.h"

namespace manager {

/// Keeps the packets in the order in which they crossed the connections, up to a limit of memory
/// beyond which the oldest are forgotten. Not thread-safe: its owner locks.
class PacketLog {
  public:
    const Packet& append(Packet packet);

    /// Returns the first packet from a client, after the one returned last, that `matcher` matches.
    /// `next` is where to begin: kept by the caller over several calls of one search, so that each
    /// packet is looked at once; 0 for a new search.
    std::optional<Packet> take(const Matcher& matcher, std::size_t& next);

    std::vector<Packet> all() const { return {packets_.begin(), packets_.end()}; }
    std::vector<Packet> received() const;
    /// The packets from clients after the one that take() returned last.
    std::vector<Packet> untaken() const;

  private:
    std::deque<Packet> packets_;
    std::size_t bytes_ = 0;
    /// Positions count every packet ever appended; `first_` is that of packets_.front().
    std::size_t first_ = 0;
    std::size_t cursor_ = 0;
};

}  // namespace manager
