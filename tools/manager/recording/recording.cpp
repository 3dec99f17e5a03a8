#include "manager/recording/recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <utility>

#include "manager/base/error.h"
#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

using Kind = RecordedEvent::Kind;

struct KindName {
    const char* event;
    /// The member that tells kinds of one event apart, and what it is.
    const char* member;
    const char* value;
    Kind kind;
};
constexpr std::array<KindName, 5> kKindNames{{
    {"packet", "direction", "from_client", Kind::FromClient},
    {"packet", "direction", "to_client", Kind::ToClient},
    {"connected", "event", "connected", Kind::Connected},
    {"disconnected", "by", "client", Kind::Left},
    {"disconnected", "by", "manager", Kind::Closed},
}};

bool is_text(const Json::Value& value, const char* text) {
    return value.isString() && value.asString() == text;
}

std::string bytes_of(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(
            parse_hexadecimal(std::string_view(hex).substr(i, 2), "a byte of \"hex\"", 0xff));
    }
    return bytes;
}

/// The packet as it was, to the byte: the message is cut out of its line.
std::optional<std::string> packet_text(const Json::Value& event, const std::string& line) {
    const Json::Value& message = member(event, "message");
    if (message.isObject() || message.isArray()) return json_source(message, line);
    if (member(event, "hex").isString()) return bytes_of(member(event, "hex").asString());
    if (member(event, "text").isString()) return member(event, "text").asString();
    return std::nullopt;
}

/// Returns the other time where the event has none, or one that no clock shows.
std::chrono::nanoseconds time_of(const Json::Value& event, std::chrono::nanoseconds other) {
    const Json::Value& seconds = member(event, "monotonic");
    if (!seconds.isNumeric() || std::abs(seconds.asDouble()) > 1e9) return other;
    return std::chrono::nanoseconds(std::llround(seconds.asDouble() * 1e9));
}

/// Returns nothing for an event that is no part of the conversation; throws BadCommand if the line
/// is wrong.
std::optional<RecordedEvent> read_event(std::size_t number, const std::string& line,
                                        std::chrono::nanoseconds time_before) {
    const auto event = parse_json(line);
    const Json::Value& name = event ? member(*event, "event") : Json::Value::nullSingleton();
    if (!name.isString()) throw BadCommand("this is no line of a recording");
    const auto same_event = [&](const KindName& k) { return is_text(name, k.event); };
    if (std::none_of(kKindNames.begin(), kKindNames.end(), same_event)) return std::nullopt;
    const auto kind = std::find_if(kKindNames.begin(), kKindNames.end(), [&](const auto& k) {
        return same_event(k) && is_text(member(*event, k.member), k.value);
    });
    const Json::Value& client = member(*event, "client");
    if (kind == kKindNames.end() || !client.isInt()) {
        throw BadCommand("\"client\", \"direction\" or \"by\" is missing or wrong");
    }
    const Json::Value& wall_time = member(*event, "time");
    RecordedEvent recorded{number,
                           kind->kind,
                           time_of(*event, time_before),
                           wall_time.isString() ? wall_time.asString() : "",
                           client.asInt(),
                           {}};
    if (!is_packet(recorded)) return recorded;
    auto text = packet_text(*event, line);
    if (!text) throw BadCommand("the packet has no \"message\" and no \"text\"");
    recorded.text = std::move(*text);
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

void leave_out_last_closes(std::vector<RecordedEvent>& events) {
    while (!events.empty() && events.back().kind == Kind::Closed) events.pop_back();
}

}  // namespace

bool is_packet(const RecordedEvent& event) {
    return event.kind == Kind::FromClient || event.kind == Kind::ToClient;
}

std::vector<RecordedEvent> read_events(const std::string& file,
                                       const std::function<void(const std::string&)>& wrong) {
    std::ifstream input(file, std::ios::binary);
    if (!input.is_open()) throw ManagerError("cannot read " + file + ": " + std::strerror(errno));
    std::vector<RecordedEvent> events;
    std::chrono::nanoseconds time{};
    std::string line;
    for (std::size_t number = 1; std::getline(input, line); ++number) {
        try {
            auto event = read_event(number, line, time);
            if (!event) continue;
            time = event->time;
            events.push_back(std::move(*event));
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
    leave_out_last_closes(events);
    if (events.empty()) throw ManagerError(file + " is no recording: it holds no packet");
    return events;
}

}  // namespace manager
