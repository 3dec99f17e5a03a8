#include "manager/simulation/packet_log.h"

#include <algorithm>
#include <iterator>

namespace manager {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{256} * 1024 * 1024;

std::size_t cost(const Packet& packet) {
    return sizeof(Packet) + packet.text.size();
}

bool is_received(const Packet& packet) {
    return packet.direction == Direction::FromClient;
}

}  // namespace

const Packet& PacketLog::append(Packet packet) {
    bytes_ += cost(packet);
    packets_.push_back(std::move(packet));
    for (; bytes_ > kMaxBytes; ++first_) {
        bytes_ -= cost(packets_.front());
        packets_.pop_front();
    }
    return packets_.back();
}

std::optional<Packet> PacketLog::take(const Matcher& matcher, std::size_t& next) {
    for (next = std::max({next, cursor_, first_}); next < first_ + packets_.size(); ++next) {
        const Packet& packet = packets_[next - first_];
        if (!is_received(packet) || !matcher(packet)) continue;
        cursor_ = next + 1;
        return packet;
    }
    return std::nullopt;
}

std::vector<Packet> PacketLog::received() const {
    std::vector<Packet> result;
    std::copy_if(packets_.begin(), packets_.end(), std::back_inserter(result), is_received);
    return result;
}

std::vector<Packet> PacketLog::untaken() const {
    const auto begin =
        packets_.begin() + static_cast<std::ptrdiff_t>(std::max(cursor_, first_) - first_);
    std::vector<Packet> result;
    std::copy_if(begin, packets_.end(), std::back_inserter(result), is_received);
    return result;
}

}  // namespace manager
