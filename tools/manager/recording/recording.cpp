// SPDX-License-Identifier: Apache-2.0
#include "manager/recording/recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <utility>

#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

using Time = std::chrono::steady_clock::time_point;

std::string bytes_of(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(
            parse_hexadecimal(std::string_view(hex).substr(i, 2), "a byte of \"hex\""));
    }
    return bytes;
}

/// The packet as it was, to the byte: the message is cut out of its line.
std::string packet_text(const Json::Value& event, const std::string& line) {
    const Json::Value& message = member(event, "message");
    if (message.isObject() || message.isArray()) return json_source(message, line);
    if (member(event, "hex").isString()) return bytes_of(member(event, "hex").asString());
    if (member(event, "text").isString()) return member(event, "text").asString();
    throw BadCommand("the packet has no \"message\" and no \"text\"");
}

/// Returns the other time where the event has none, or one that no clock shows.
Time time_of(const Json::Value& event, Time other) {
    const Json::Value& seconds = member(event, "monotonic");
    if (!seconds.isNumeric() || std::abs(seconds.asDouble()) > 1e9) return other;
    return Time(std::chrono::nanoseconds(std::llround(seconds.asDouble() * 1e9)));
}

/// Returns nothing for an event that is no part of the conversation; throws BadCommand if the line
/// is wrong.
std::optional<RecordedEvent> read_event(std::size_t number, const std::string& line,
                                        Time time_before) {
    const Json::Value event = parse_json(line).value_or(Json::Value());
    const Json::Value& name = member(event, "event");
    if (!name.isString()) throw BadCommand("this is no line of a recording");
    bool is_known = false;
    const auto* const words =
        std::find_if(kKindWords.begin(), kKindWords.end(), [&](const KindWords& w) {
            is_known = is_known || name == w.event;
            return name == w.event && (*w.member == '\0' || member(event, w.member) == w.value);
        });
    if (!is_known) return std::nullopt;
    const Json::Value& client = member(event, "client");
    if (words == kKindWords.end() || !client.isInt()) {
        throw BadCommand("\"client\", \"direction\" or \"by\" is missing or wrong");
    }
    const Json::Value& time = member(event, "time");
    RecordedEvent recorded{{time_of(event, time_before),
                            {},
                            client.asInt(),
                            static_cast<Kind>(words - kKindWords.begin())},
                           number,
                           time.isString() ? time.asString() : ""};
    if (is_packet(recorded)) recorded.text = packet_text(event, line);
    return recorded;
}

void leave_out_silent_clients(std::vector<RecordedEvent>& events) {
    std::set<int> clients;
    for (const RecordedEvent& event : events) {
        if (is_packet(event)) clients.insert(event.client);
    }
    events.erase(std::remove_if(events.begin(), events.end(),
                                [&](const auto& e) { return clients.count(e.client) == 0; }),
                 events.end());
}

}  // namespace

std::vector<RecordedEvent> read_events(const std::string& file,
                                       const std::function<void(const std::string&)>& wrong) {
    std::ifstream input(file, std::ios::binary);
    if (!input.is_open()) throw system_failure("cannot read " + file);
    std::vector<RecordedEvent> events;
    std::string line;
    for (std::size_t number = 1; std::getline(input, line); ++number) {
        try {
            const Time before = events.empty() ? Time() : events.back().time;
            if (auto event = read_event(number, line, before)) events.push_back(std::move(*event));
        } catch (const BadCommand& error) {
            wrong(fmt::format("{}:{}: {}", file, number, error.what()));
        }
    }
    leave_out_silent_clients(events);
    return events;
}

std::vector<RecordedEvent> read_recording(const std::string& file) {
    auto events =
        read_events(file, [](const std::string& message) { throw ManagerError(message); });
    while (!events.empty() && events.back().kind == Kind::Closed) events.pop_back();
    if (events.empty()) throw ManagerError(file + " is no recording: it holds no packet");
    return events;
}

}  // namespace manager
