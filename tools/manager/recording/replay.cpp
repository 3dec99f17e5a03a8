// SPDX-License-Identifier: Apache-2.0
#include "manager/recording/replay.h"

#include <fmt/format.h>

#include <iterator>
#include <optional>

#include "manager/base/json.h"

namespace manager {
namespace {

// Enough of a packet to recognise it in a message.
constexpr std::size_t kShownBytes = 500;

std::string shown(const std::string& text) {
    return one_line(text.size() > kShownBytes ? text.substr(0, kShownBytes) + "..." : text);
}

/// A member of a packet.
struct Found {
    std::size_t begin;
    std::string text;
};

std::optional<Found> find_member(const std::string& packet, const char* name) {
    const Json::Value message = parse_json(packet).value_or(Json::Value());
    const Json::Value& value = member(message, name);
    if (value.isNull()) return std::nullopt;
    return Found{static_cast<std::size_t>(value.getOffsetStart()), json_source(value, packet)};
}

/// The path of the first member that differs, as in func.celsius, empty if there is none.
std::string difference(const Json::Value& a, const Json::Value& b, const std::string& path,
                       const std::set<std::string>& ignored) {
    std::string found;
    if (a.isObject() && b.isObject()) {
        auto names = a.getMemberNames();
        for (const std::string& name : b.getMemberNames()) {
            if (!a.isMember(name)) names.push_back(name);
        }
        for (const std::string& name : names) {
            if (!found.empty()) break;
            if (ignored.count(name) != 0) continue;
            const std::string below = path.empty() ? name : path + '.' + name;
            const bool in_both = a.isMember(name) && b.isMember(name);
            found = in_both ? difference(a[name], b[name], below, ignored) : below;
        }
        return found;
    }
    if (!a.isArray() || !b.isArray() || a.size() != b.size()) return a == b ? "" : path;
    for (Json::ArrayIndex i = 0; i < a.size() && found.empty(); ++i) {
        found = difference(a[i], b[i], fmt::format("{}[{}]", path, i), ignored);
    }
    return found;
}

/// Compares two packets of the same "req_type" and, where there is one, "transac_id": JSON by all
/// members but the ignored ones, in whatever order, other texts as they are. Returns where they
/// differ, empty if they are the same; nothing if they are about different things.
std::optional<std::string> compare(const std::string& recorded, const std::string& came,
                                   const std::set<std::string>& ignored) {
    if (recorded == came) return "";
    const Json::Value a = parse_json(recorded).value_or(Json::Value());
    const Json::Value b = parse_json(came).value_or(Json::Value());
    if (!a.isObject() || !b.isObject()) return std::nullopt;
    for (const char* const name : {"req_type", "transac_id"}) {
        if (member(a, name) != member(b, name)) return std::nullopt;
    }
    return difference(a, b, "", ignored);
}

}  // namespace

Replay::Replay(const std::string& file, ReplayOptions options, CommandContext& context)
    : file_(file), options_(std::move(options)), context_(context), events_(read_recording(file)) {
    context_.manager.set_answering(false, [this](const std::vector<int>& clients) {
        context_.traffic.events.emplace();
        present_.assign(clients.begin(), clients.end());
        for (const int number : clients) clients_[number];
    });
}

Replay::~Replay() {
    context_.manager.set_answering(
        true, [this](const std::vector<int>&) { context_.traffic.events.reset(); });
}

void Replay::run() {
    for (const RecordedEvent& event : events_) play(event);
    while (note_next(std::chrono::milliseconds(0))) continue;
    for (const auto& [number, client] : clients_) {
        if (client.packets.empty()) continue;
        fail(events_.back(),
             fmt::format("{} packets came from client {} that were not recorded:\n    {}",
                         client.packets.size(), number, shown(client.packets.front())));
    }
    context_.console.report(fmt::format("replayed {}: {} packets sent, {} received as recorded",
                                        file_, sent_, received_),
                            "replayed",
                            fmt::format(R"("sent":{},"received":{})", sent_, received_));
}

void Replay::play(const RecordedEvent& event) {
    if (event.kind == Kind::Connected) return connect(event);
    if (event.kind == Kind::FromClient) return receive(event);
    if (event.kind == Kind::ToClient) return send(event);
    const Client& client = client_of(event);
    if (event.kind == Kind::Closed) {
        // The Manager never closes one connection alone: the others' ends may be known already, and
        // their clients be back.
        while (note_next(std::chrono::milliseconds(0))) continue;
        if (client.connected) context_.manager.close_clients();
    }
    await(
        event, [&] { return !client.connected; },
        [] { return "the client did not end its connection"; });
}

void Replay::connect(const RecordedEvent& event) {
    await(
        event, [&] { return !newcomers_.empty(); }, [] { return "no client connected"; });
    numbers_[event.client] = newcomers_.front();
    newcomers_.pop_front();
}

void Replay::receive(const RecordedEvent& event) {
    bool taken = false;
    const auto is_decided = [&] {
        Client& client = client_of(event);
        return (taken = take_same(client.packets, event)) || !client.connected;
    };
    await(event, is_decided, [&] { return missing(client_of(event), event); });
    if (!taken) fail(event, missing(client_of(event), event));
    ++received_;
}

/// What to say when the packet has not come.
std::string Replay::missing(const Client& client, const RecordedEvent& event) const {
    std::string instead = client.connected ? "nothing else" : "it left";
    if (!client.packets.empty()) {
        const std::string& other = client.packets.front();
        const std::string path = compare(event.text, other, options_.ignored).value_or("");
        instead = path.empty() ? shown(other) : "with another " + path + ": " + shown(other);
    }
    return fmt::format("the client did not send\n    {}\n  but {}", shown(event.text), instead);
}

/// Returns whether the packet was there; it is no more then.
bool Replay::take_same(std::deque<std::string>& packets, const RecordedEvent& event) {
    for (auto packet = packets.begin(); packet != packets.end(); ++packet) {
        const auto path = compare(event.text, *packet, options_.ignored);
        if (!path) continue;
        if (path->empty()) {
            const auto recorded = find_member(event.text, "QueryId");
            const auto current = find_member(*packet, "QueryId");
            if (recorded && current) queries_[{event.client, recorded->text}] = current->text;
            packets.erase(packet);
            return true;
        }
        // There is one reply to a task: the one that was recorded will not come any more.
        if (!find_member(event.text, "transac_id")) continue;
        fail(event,
             fmt::format("the client answered differently, in {}:\n    {}\n  instead of\n    {}",
                         *path, shown(*packet), shown(event.text)));
    }
    return false;
}

void Replay::send(const RecordedEvent& event) {
    std::string text = event.text;
    if (const auto id = find_member(text, "QueryId")) {
        const auto query = queries_.find({event.client, id->text});
        if (query != queries_.end()) text.replace(id->begin, id->text.size(), query->second);
    }
    try {
        client_of(event).silent = false;
        context_.manager.send(number_of(event), text);
    } catch (const ManagerError& error) {
        fail(event, error.what());
    }
    ++sent_;
}

void Replay::await(const RecordedEvent& event, const std::function<bool()>& done,
                   const std::function<std::string()>& complaint) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + options_.timeout;
    while (!done()) {
        const auto left = deadline - steady_clock::now();
        if (note_next(std::chrono::ceil<std::chrono::milliseconds>(left))) continue;
        fail(event, fmt::format("within {} ms {}", options_.timeout.count(), complaint()));
    }
}

/// Waits until something happens and takes note of it; returns whether it did.
bool Replay::note_next(std::chrono::milliseconds timeout) {
    auto& events = *context_.traffic.events;
    std::optional<Event> event;
    context_.manager.wait_until(
        [&] {
            if (events.empty()) return false;
            event = std::move(events.front());
            events.pop_front();
            return true;
        },
        timeout);
    if (!event) return false;
    Client& client = clients_[event->client];
    if (event->kind == Kind::Connected) newcomers_.push_back(event->client);
    if (event->kind == Kind::FromClient) {
        client.packets.push_back(event->text);
        client.silent = false;
    }
    if (event->kind != Kind::Left && event->kind != Kind::Closed) return true;
    client.connected = false;
    if (!client.silent) return true;
    // One that says nothing is in no recording either, and stands for nobody: the next one does.
    newcomers_.remove(event->client);
    for (auto taken = numbers_.begin(); taken != numbers_.end();) {
        taken = taken->second == event->client ? numbers_.erase(taken) : std::next(taken);
    }
    return true;
}

/// The number of the client that the one in the recording stands for.
int Replay::number_of(const RecordedEvent& event) {
    if (numbers_.count(event.client) == 0 && present_.empty()) connect(event);
    if (numbers_.count(event.client) == 0) {
        numbers_[event.client] = present_.front();
        present_.pop_front();
    }
    return numbers_.at(event.client);
}

void Replay::fail(const RecordedEvent& event, const std::string& reason) const {
    throw CommandFailed(
        fmt::format("{}:{}: client {}: {}", file_, event.line, event.client, reason));
}

}  // namespace manager
