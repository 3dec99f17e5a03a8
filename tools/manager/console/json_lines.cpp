// SPDX-License-Identifier: Apache-2.0
#include "manager/console/json_lines.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>

#include "manager/base/json.h"

namespace manager {
namespace {

using std::chrono::steady_clock;
using std::chrono::system_clock;

std::string line(steady_clock::time_point time, system_clock::time_point wall_time,
                 const std::string& event, const std::string& members) {
    using Seconds = std::chrono::duration<double>;
    const auto wall =
        std::chrono::duration_cast<std::chrono::microseconds>(wall_time.time_since_epoch());
    return fmt::format(
        R"({{"time":"{:%Y-%m-%dT%H:%M:%S}.{:06}Z","monotonic":{:.9f},"event":"{}"{}{}}})",
        fmt::gmtime(system_clock::to_time_t(wall_time)), wall.count() % 1'000'000,
        Seconds(time.time_since_epoch()).count(), event, members.empty() ? "" : ",", members);
}

std::string content(std::string text) {
    if (is_strict_json(text)) {
        // Line ends outside strings, the only ones that strict JSON has, are no more than blanks.
        std::replace_if(
            text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
        return "\"message\":" + text;
    }
    const std::string shown = json_text(text);
    // What is no UTF-8 has been replaced.
    if (parse_json(shown) == text) return "\"text\":" + shown;
    std::string hex;
    for (const char c : text) hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return fmt::format(R"("text":{},"hex":"{}")", shown, hex);
}

}  // namespace

std::string json_line(const Event& event) {
    const KindWords& words = kKindWords.at(static_cast<std::size_t>(event.kind));
    std::string members = fmt::format("\"client\":{}", event.client);
    if (*words.member != '\0') members += fmt::format(R"(,"{}":"{}")", words.member, words.value);
    if (is_packet(event)) members += ',' + content(event.text);
    return line(event.time, event.wall_time, words.event, members);
}

std::string json_line(const std::string& event, const std::string& members) {
    return line(steady_clock::now(), system_clock::now(), event, members);
}

}  // namespace manager
