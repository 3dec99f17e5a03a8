#include "manager/recording/replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "manager/base/json.h"

namespace manager {
namespace {

using Degree = Likeness::Degree;

// Enough of a packet to recognise it in a message.
constexpr std::size_t kShownBytes = 500;

std::string shown(const std::string& text) {
    return one_line(text.size() > kShownBytes ? text.substr(0, kShownBytes) + "..." : text);
}

/// Where a packet has its "QueryId".
struct QueryId {
    std::size_t begin;
    std::string text;
};

std::optional<QueryId> find_query_id(const std::string& text) {
    const auto message = parse_json(text);
    const Json::Value& id = message ? member(*message, "QueryId") : Json::Value::nullSingleton();
    if (id.isNull()) return std::nullopt;
    return QueryId{static_cast<std::size_t>(id.getOffsetStart()), json_source(id, text)};
}

}  // namespace

Replay::Replay(const std::string& file, ReplayOptions options, CommandContext& context)
    : file_(file), options_(std::move(options)), context_(context), events_(read_recording(file)) {
    context_.manager.set_answering(false, [this](const std::vector<int>& clients) {
        context_.traffic.events.set_open(true);
        for (const int number : clients) {
            present_.push_back(number);
            clients_[number] = {number};
        }
    });
}

Replay::~Replay() {
    context_.manager.set_answering(
        true, [this](const std::vector<int>&) { context_.traffic.events.set_open(false); });
}

void Replay::run() {
    for (const RecordedEvent& event : events_) play(event);
    require_nothing_left();
    context_.console.report(fmt::format("replayed {}: {} packets sent, {} received as recorded",
                                        file_, sent_, received_),
                            "replayed",
                            fmt::format(R"("sent":{},"received":{})", sent_, received_));
}

void Replay::play(const RecordedEvent& event) {
    switch (event.kind) {
        case Kind::Connected:
            return connect(event);
        case Kind::FromClient:
            return receive(event);
        case Kind::ToClient:
            return send(event);
        case Kind::Closed:
            // The Manager never closes one connection alone: the others' ends may be known already,
            // and their clients be back.
            note_all();
            if (client_of(event).connected) context_.manager.close_clients();
            return await_end(event);
        case Kind::Left:
            return await_end(event);
    }
}

void Replay::connect(const RecordedEvent& event) {
    await(
        event, [&] { return !newcomers_.empty(); }, [] { return "no client connected"; });
    numbers_[event.client] = newcomers_.front();
    newcomers_.pop_front();
}

void Replay::receive(const RecordedEvent& event) {
    Client& client = client_of(event);
    bool taken = false;
    await(
        event, [&] { return (taken = take_same(client, event)) || !client.connected; },
        [&] { return missing(client, event); });
    if (!taken) fail(event, missing(client, event));
    ++received_;
}

/// What to say when the packet has not come.
std::string Replay::missing(const Client& client, const RecordedEvent& event) const {
    std::string instead = client.connected ? "nothing else" : "it left";
    if (!client.packets.empty()) {
        const std::string& other = client.packets.front();
        const std::string path = compare(event.text, other, options_.ignored).difference;
        instead = path.empty() ? shown(other) : "with another " + path + ": " + shown(other);
    }
    return fmt::format("the client did not send\n    {}\n  but {}", shown(event.text), instead);
}

/// Returns whether the packet was there; it is no more then.
bool Replay::take_same(Client& client, const RecordedEvent& event) {
    for (auto packet = client.packets.begin(); packet != client.packets.end(); ++packet) {
        const Likeness likeness = compare(event.text, *packet, options_.ignored);
        if (likeness.degree == Degree::OtherReply) {
            fail(event,
                 fmt::format("the client answered differently, in {}:\n    {}\n  instead of\n"
                             "    {}",
                             likeness.difference, shown(*packet), shown(event.text)));
        }
        if (likeness.degree != Degree::Same) continue;
        remember_query(event, *packet);
        client.packets.erase(packet);
        return true;
    }
    return false;
}

void Replay::remember_query(const RecordedEvent& event, const std::string& came) {
    const auto recorded = find_query_id(event.text);
    const auto current = find_query_id(came);
    if (recorded && current) queries_[{event.client, recorded->text}] = current->text;
}

void Replay::send(const RecordedEvent& event) {
    std::string text = event.text;
    if (const auto id = find_query_id(text)) {
        const auto query = queries_.find({event.client, id->text});
        if (query != queries_.end()) text.replace(id->begin, id->text.size(), query->second);
    }
    try {
        context_.manager.send(client_of(event).number, text);
    } catch (const ManagerError& error) {
        fail(event, error.what());
    }
    ++sent_;
}

void Replay::await_end(const RecordedEvent& event) {
    const Client& client = client_of(event);
    await(
        event, [&] { return !client.connected; },
        [] { return "the client did not end its connection"; });
}

template <typename Done, typename Complaint>
void Replay::await(const RecordedEvent& event, Done done, Complaint complaint) {
    const auto deadline = std::chrono::steady_clock::now() + options_.timeout;
    while (!done()) {
        std::optional<EventQueue::Event> next;
        const auto take = [&] { return (next = context_.traffic.events.take()).has_value(); };
        const auto left = deadline - std::chrono::steady_clock::now();
        using std::chrono::milliseconds;
        if (!context_.manager.wait_until(take, std::chrono::ceil<milliseconds>(left))) {
            fail(event, fmt::format("within {} ms {}", options_.timeout.count(), complaint()));
        }
        note(*next);
    }
}

/// Takes note of what has happened so far.
void Replay::note_all() {
    while (const auto event = context_.traffic.events.take()) note(*event);
}

void Replay::note(const EventQueue::Event& event) {
    std::visit([this](const auto& happened) { note(happened); }, event);
}

void Replay::note(const Packet& packet) {
    Client* const client = find(packet.client);
    if (client == nullptr || packet.direction == Direction::ToClient) return;
    client->packets.push_back(packet.text);
}

void Replay::note(const ConnectionChange& change) {
    if (change.change == Change::Connected) {
        newcomers_.push_back(change.client);
        clients_[change.client] = {change.client};
    } else if (Client* const client = find(change.client)) {
        client->connected = false;
        if (client->packets.empty()) forget_newcomer(change.client);
    }
}

/// One that says nothing is in no recording either.
void Replay::forget_newcomer(int number) {
    newcomers_.erase(std::remove(newcomers_.begin(), newcomers_.end(), number), newcomers_.end());
}

Replay::Client* Replay::find(int number) {
    const auto client = clients_.find(number);
    return client == clients_.end() ? nullptr : &client->second;
}

Replay::Client& Replay::client_of(const RecordedEvent& event) {
    const auto known = numbers_.find(event.client);
    if (known != numbers_.end()) return clients_.at(known->second);
    if (present_.empty()) {
        connect(event);
    } else {
        numbers_[event.client] = present_.front();
        present_.pop_front();
    }
    return clients_.at(numbers_.at(event.client));
}

void Replay::require_nothing_left() {
    note_all();
    for (const auto& [number, client] : clients_) {
        const auto& packets = client.packets;
        if (packets.empty()) continue;
        fail(events_.back(), fmt::format("{} packets came from client {} that were not recorded:"
                                         "\n    {}",
                                         packets.size(), number, shown(packets.front())));
    }
}

void Replay::fail(const RecordedEvent& event, const std::string& reason) const {
    throw CommandFailed(
        fmt::format("{}:{}: client {}: {}", file_, event.line, event.client, reason));
}

}  // namespace manager
