// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "manager/recording/recording.h"
#include "manager/recording/traffic.h"

namespace manager {

struct ReplayOptions {
    /// How long to wait for each packet, connection and end of a connection.
    std::chrono::milliseconds timeout = std::chrono::seconds(5);
    /// The names of the members that need not be the same, at any depth: at first those that differ
    /// from one run to the next.
    std::set<std::string> ignored{"Service_Id", "service_id", "QueryId"};
};

/// Plays the Manager's side of a recorded conversation. While the object lives, the Manager answers
/// nothing by itself. Not thread-safe.
///
/// Packets are sent in the order of the recording, each after those that clients had sent before it
/// have come. What comes from a client may come in another order than it was recorded in. Clients
/// are told apart by the order in which they connect, those left out that leave without a packet;
/// one that was connected already when the recording began stands for one that is connected already
/// when this object is made, or else for the next one. A query is answered with its own "QueryId".
class Replay {
  public:
    /// Takes over from the Manager's own answers. Throws as read_recording() does. The context must
    /// outlive this object.
    Replay(const std::string& file, ReplayOptions options, CommandContext& context);
    ~Replay();
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    /// Plays it, once. Throws CommandFailed, naming the line of the recording, when what was
    /// recorded does not come, comes differently, or when something came that was not recorded.
    void run();

  private:
    struct Client {
        bool connected = true;
        /// Whether no packet has come from it or gone to it.
        bool silent = true;
        /// What came from it and has not been found in the recording yet.
        std::deque<std::string> packets = {};
    };

    void play(const RecordedEvent& event);
    void connect(const RecordedEvent& event);
    void receive(const RecordedEvent& event);
    void send(const RecordedEvent& event);
    bool take_same(std::deque<std::string>& packets, const RecordedEvent& event);
    std::string missing(const Client& client, const RecordedEvent& event) const;

    /// Waits until `done()`, or throws CommandFailed with what `complaint()` returns.
    void await(const RecordedEvent& event, const std::function<bool()>& done,
               const std::function<std::string()>& complaint);
    bool note_next(std::chrono::milliseconds timeout);
    int number_of(const RecordedEvent& event);
    Client& client_of(const RecordedEvent& event) { return clients_.at(number_of(event)); }
    [[noreturn]] void fail(const RecordedEvent& event, const std::string& reason) const;

    const std::string file_;
    const ReplayOptions options_;
    CommandContext& context_;
    const std::vector<RecordedEvent> events_;
    /// The clients that nobody in the recording stands for yet, in the order they connected: those
    /// from before the replay, and the others.
    std::list<int> present_;
    std::list<int> newcomers_;
    std::map<int, Client> clients_;
    /// Who in the recording is which client.
    std::map<int, int> numbers_;
    /// The "QueryId" now, as text, by client and "QueryId" in the recording.
    std::map<std::pair<int, std::string>, std::string> queries_;
    std::size_t sent_ = 0;
    std::size_t received_ = 0;
};

}  // namespace manager
