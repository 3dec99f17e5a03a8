#include "manager/prompt/line_source.h"

#include <unistd.h>

#include <array>

namespace manager {

std::optional<std::string> FileLines::next() {
    std::size_t searched = 0;
    while (buffer_.find('\n', searched) == std::string::npos) {
        searched = buffer_.size();
        if (read_more()) continue;
        // What is left has no end of line: the last line of a file may, an interrupted one is void.
        if (buffer_.empty() || interruption_.signal() != 0) return std::nullopt;
        return std::exchange(buffer_, {});
    }
    const std::size_t end = buffer_.find('\n', searched);
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

bool FileLines::read_more() {
    std::array<char, 65536> chunk;
    if (!interruption_.wait_readable(file_.get())) return false;
    const ssize_t size = read(file_.get(), chunk.data(), chunk.size());
    if (size <= 0) return false;
    buffer_.append(chunk.data(), static_cast<std::size_t>(size));
    return true;
}

}  // namespace manager
