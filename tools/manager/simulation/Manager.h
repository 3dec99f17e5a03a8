// SPDX-License-Identifier: Apache-2.0
// The simulated Manager: what service processes talk to where there is no device.
//
// Thread-safety: every member of SimulatedManager may be called from any thread at any time, but
// not from an observer or a matcher, since these run while the Manager is locked. A waiting call
// blocks only its own thread. expect() has one cursor for all callers, so one thread at a time
// should use it.
#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "manager/base/error.h"
#include "manager/base/file_descriptor.h"
#include "manager/simulation/answers.h"
#include "manager/simulation/listening_socket.h"
#include "manager/simulation/matcher.h"
#include "manager/simulation/messages.h"

namespace manager {

constexpr char kDefaultPath[] = "/dev/socket/vexa";
constexpr char kDedicatedPath[] = "/dev/socket/vexon_one/vexa_one";

/// How the Manager ends connections.
enum class Ending {
    /// Everything that clients sent is received first, so that they see an end of the connection.
    Orderly,
    /// As by a Manager that dies: what clients sent last may be left unread. A client of which a
    /// packet is, or that was not accepted yet, sees a reset; any other sees an end.
    Abrupt,
};

/// The reply of a client to a task.
struct Reply {
    std::int64_t transaction;
    /// The reply's "status", absent if it has no integer there.
    std::optional<std::int64_t> status;
    /// From the call of exec_task() until the packet was received.
    std::chrono::nanoseconds latency;
    Packet packet;
};

/// Listens at a path, answers the requests of the clients that connect, sends them packets and
/// keeps a log of every packet.
class SimulatedManager : public Answers {
  public:
    using Observer = std::function<void(const Event&)>;
    /// How long a call waits at most; counted on the monotonic clock, up to 24 hours.
    using Timeout = std::chrono::milliseconds;

    explicit SimulatedManager(std::string path = kDefaultPath);
    /// Stops. No other call may be under way.
    ~SimulatedManager();
    SimulatedManager(const SimulatedManager&) = delete;
    SimulatedManager& operator=(const SimulatedManager&) = delete;

    /// Listens at the path and serves clients on a thread of its own; nothing if running already.
    /// A Manager that was stopped starts like a new one: the ids of its services follow on
    /// `last_service`, no opcode is authenticated. The log, the cursor of expect(), the numbering
    /// of clients and transactions and the rules of the answers go on. Throws ManagerError if it
    /// cannot listen.
    void start(std::int64_t last_service = 0);

    /// Closes all connections as close_clients() does, removes the socket file and wakes waiting
    /// calls, which report that nothing came; nothing if not running. Waits for the thread to end.
    void stop(Ending ending = Ending::Orderly);

    /// Has the observer called with each event, in the order of the log. It runs on the thread that
    /// received or sent, one at a time, and must not call the Manager. Replaces an earlier one.
    void set_observer(Observer observer);

    /// Sends a packet to one client, to each client (returns how many these are), or to the client
    /// that authenticated the opcode last. Does not block: what a slow client has no room for yet
    /// is sent later, in order. Throws ManagerError if there is no such client or the packet is
    /// larger than the system lets us send.
    void send(int client, const std::string& text);
    std::size_t send_to_all(const std::string& text);
    void send_for_opcode(Opcode opcode, const std::string& text);

    /// Closes the connections of all clients and goes on listening. Returns when they are closed.
    /// What is still to be sent to a slow client is lost.
    void close_clients(Ending ending = Ending::Orderly);

    /// Whether packets of clients are received, as they are at first. While they are not, the send
    /// buffers of clients fill up, and it is not noticed who leaves. Only an orderly ending still
    /// receives what has come.
    void set_reading(bool reading);

    /// Whether requests are answered at all, as they are at first. `at_once` is called between two
    /// packets, at the moment of the change, with the connected clients; it must not call the
    /// Manager.
    void set_answering(bool answering,
                       const std::function<void(const std::vector<int>& clients)>& at_once);

    /// Waits for the next packet from a client that `matcher` matches, counting from the one that
    /// the last successful expect() returned, whether it has come already or is still to come.
    /// Returns nothing when the time is over or the Manager does not run.
    std::optional<Packet> expect(const Matcher& matcher, Timeout timeout);

    /// Waits until exactly `count` clients are connected; returns whether they are.
    bool wait_for_clients(std::size_t count, Timeout timeout);

    /// Waits until `done()`, which is called while the Manager is locked, after each packet and
    /// each change; returns whether it is. It must not call the Manager, but may ask what observers
    /// know.
    bool wait_until(const std::function<bool()>& done, Timeout timeout);

    /// Whether waiting calls wait, as they do at first. While they do not, they return at once, as
    /// if the time were over.
    void set_waiting(bool waiting);

    /// The numbers of the connected clients, in the order in which they connected.
    std::vector<int> clients() const;

    /// Copies of the log: all packets, those from clients, and those from clients that came after
    /// the packet that expect() returned last. Beyond 256 MiB the oldest packets are forgotten.
    std::vector<Packet> log() const;
    std::vector<Packet> received() const;
    std::vector<Packet> unexpected() const;

    /// Send the message to the clients that authenticated the opcodes, to each with its own. The
    /// end of a whole session, without targets, goes to the clients for which it was started, to
    /// every client if there are none. Return the transaction number. Throw as send() does.
    std::int64_t start_session(std::int64_t session, const std::vector<Target>& targets);
    void ready_session(std::int64_t session, const std::vector<Target>& targets);
    std::int64_t end_session(std::int64_t session, const std::vector<Target>& targets = {});

    /// Sends the task to the client that authenticated its opcode and returns the transaction
    /// number, which is unique. Throws as send() does, and if the arguments are no JSON array.
    std::int64_t exec_task(const Task& task);

    /// Waits for the reply to a transaction of exec_task(), or to any of them. Each reply is
    /// returned once. Returns nothing when the time is over, the client that was to reply to the
    /// transaction has gone, or the Manager does not run.
    std::optional<Reply> await_reply(std::optional<std::int64_t> transaction, Timeout timeout);
    std::optional<Reply> await_any_reply(Timeout timeout) { return await_reply({}, timeout); }

  private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    struct Client {
        int number;
        FileDescriptor connection;
        /// The packets that the connection had no room for yet.
        std::deque<std::string> unsent = {};
        /// The sessions that were started for it.
        std::set<std::int64_t> sessions = {};
        /// How it is being closed, if it is.
        std::optional<Ending> closing = {};
        /// Whether it ended the connection itself.
        bool left = false;
    };
    using TargetsByClient = std::map<int, std::vector<Target>>;

    void serve();
    // The caller of all below holds the lock; the first four run on the Manager's thread.
    void handle_events(const std::vector<pollfd>& events);
    void accept_clients();
    bool receive_from(Client& client);
    void remove_closing_clients();
    std::vector<int> client_numbers() const;
    std::vector<Packet> received_since(std::size_t position) const;
    std::vector<pollfd> poll_set() const;
    int poll_timeout() const;
    void begin_to_close(Ending ending);
    Client* find_client(int number);
    Client& client_for(Opcode opcode);
    TargetsByClient by_client(const std::vector<Target>& targets);
    TargetsByClient participants(std::int64_t session) const;
    void deliver(Client& client, const std::string& text);
    void enqueue(Client& client, const std::string& text);
    void flush(Client& client);
    void note(int client, Kind kind, const std::string& text = {});
    void handle(Client& client, const Packet& packet);
    void send_due_answers();
    void wake_thread() const;

    const std::string path_;
    const FileDescriptor wake_;

    std::mutex lifecycle_mutex_;
    std::thread thread_;
    ListeningSocket listener_;

    std::atomic<std::int64_t> last_transaction_{0};

    mutable std::mutex mutex_;
    /// Notified after every change that a waiting call may be waiting for.
    std::condition_variable changed_;
    bool running_ = false;
    Ending ending_ = Ending::Orderly;
    bool reading_ = true;
    bool waiting_ = true;
    Observer observer_;
    /// Only the Manager's thread adds and removes elements.
    std::list<Client> clients_;
    int last_client_ = 0;
    /// Which client has authenticated which opcode, the newest first.
    std::list<std::pair<Opcode, Client*>> routes_;
    /// The answers that go out later than at once, and to which client.
    std::multimap<Clock::time_point, std::pair<int, std::string>> delayed_;
    /// When each task that has no reply yet was sent, and to which client.
    std::map<std::int64_t, std::pair<Clock::time_point, int>> pending_;
    std::deque<Reply> replies_;
    std::deque<Packet> log_;
    std::size_t log_bytes_ = 0;
    /// Positions count every packet ever logged: that of the first in the log, and that behind the
    /// packet that expect() returned last.
    std::size_t first_ = 0;
    std::size_t cursor_ = 0;
};

}  // namespace manager
