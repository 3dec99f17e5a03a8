#include "manager/simulation/replies.h"

#include <algorithm>
#include <utility>

namespace manager {

void Replies::keep(const ReplyHead& head, const Packet& packet) {
    const auto task = pending_.find(head.transaction);
    if (task == pending_.end()) return;
    replies_.push_back({head.transaction, head.status, packet.time - task->second, packet});
    pending_.erase(task);
}

std::optional<Reply> Replies::take(std::optional<std::int64_t> transaction) {
    const auto reply = std::find_if(replies_.begin(), replies_.end(), [&](const Reply& r) {
        return !transaction || r.transaction == *transaction;
    });
    if (reply == replies_.end()) return std::nullopt;
    Reply taken = std::move(*reply);
    replies_.erase(reply);
    return taken;
}

}  // namespace manager
