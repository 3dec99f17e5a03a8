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
#include <string>
#include <thread>
#include <vector>

#include "manager/answers.h"
#include "manager/error.h"
#include "manager/file_descriptor.h"
#include "manager/matcher.h"
#include "manager/messages.h"
#include "manager/opcode_routes.h"
#include "manager/packet.h"
#include "manager/packet_log.h"

namespace manager {

constexpr char kDefaultPath[] = "/dev/socket/vexa";
constexpr char kDedicatedPath[] = "/dev/socket/vexon_one/vexa_one";

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
class SimulatedManager {
  public:
    using PacketObserver = std::function<void(const Packet&)>;
    using ConnectionObserver = std::function<void(int client, bool connected)>;
    /// How long a call waits at most; counted on the monotonic clock, up to 24 hours.
    using Timeout = std::chrono::milliseconds;

    explicit SimulatedManager(std::string path = kDefaultPath);
    /// Stops. No other call may be under way.
    ~SimulatedManager();
    SimulatedManager(const SimulatedManager&) = delete;
    SimulatedManager& operator=(const SimulatedManager&) = delete;

    const std::string& path() const { return path_; }

    /// Listens at the path and serves clients on a thread of its own; nothing if running already.
    /// A Manager that was stopped starts like a new one: its services count from 1, no opcode is
    /// authenticated. The log, the cursor of expect(), the numbering of clients and transactions
    /// and the rules of refuse() and set_silent() go on. Throws ManagerError if it cannot listen.
    void start();

    /// Closes all connections, removes the socket file and wakes all waiting calls, which report
    /// that nothing came; nothing if not running. Waits for the Manager's thread to end.
    void stop();

    /// Has the observers called, in the order of the log, with each packet and with each client
    /// that connects or is disconnected. They run on the thread that received or sent, one at a
    /// time, and must not call the Manager. Replaces earlier observers; an empty one is none.
    void set_observer(PacketObserver on_packet, ConnectionObserver on_connection = {});

    /// Sends a packet to one client, to each client (returns how many these are), or to the client
    /// that authenticated the opcode last. Does not block: what a slow client has no room for yet
    /// is sent later, in order. Throws ManagerError if there is no such client or the packet is
    /// larger than the system lets us send.
    void send(int client, const std::string& text);
    std::size_t send_to_all(const std::string& text);
    void send_for_opcode(Opcode opcode, const std::string& text);

    /// Closes the connections of all clients and goes on listening. Returns when they are closed.
    /// What is still to be sent to a slow client is lost.
    void close_clients();

    /// Refuses or accepts a step of the clients' introduction from now on: for the opcode, or for
    /// all opcodes if none is given. An INIT has no opcode. At first everything is accepted.
    void refuse(Step step, std::optional<Opcode> opcode = std::nullopt);
    void accept(Step step, std::optional<Opcode> opcode = std::nullopt);

    /// While a step is silent its requests get no answer at all, unless by send().
    void set_silent(Step step, bool silent);

    /// Waits for the next packet from a client that `matcher` matches, counting from the one that
    /// the last successful expect() returned, whether it has come already or is still to come.
    /// Returns nothing when the time is over or the Manager does not run.
    std::optional<Packet> expect(const Matcher& matcher, Timeout timeout);

    /// Waits until exactly `count` clients are connected; returns whether they are.
    bool wait_for_clients(std::size_t count, Timeout timeout);

    /// Waits until the client that has or had this number is disconnected; returns whether it is.
    bool wait_for_disconnect(int client, Timeout timeout);

    /// The numbers of the connected clients, in the order in which they connected.
    std::vector<int> clients() const;

    /// Copies of the log: all packets, those from clients, and those from clients that came after
    /// the packet that expect() returned last. Beyond 256 MiB the oldest packets are forgotten.
    std::vector<Packet> log() const;
    std::vector<Packet> received() const;
    std::vector<Packet> unexpected() const;

    /// Sends start_session or ready_session to the clients that authenticated the opcodes, to each
    /// client with its own. The first returns its transaction number. Throws as send() does.
    std::int64_t start_session(std::int64_t session, const std::vector<Target>& targets);
    void ready_session(std::int64_t session, const std::vector<Target>& targets);

    /// Sends the task to the client that authenticated its opcode and returns the transaction
    /// number, which is unique. Throws as send() does, and if the arguments are no JSON array.
    std::int64_t exec_task(const Task& task);

    /// Waits for the reply to a transaction of exec_task(), or to any of them. Each reply is
    /// returned once. Returns nothing when the time is over or the Manager does not run.
    std::optional<Reply> await_reply(std::int64_t transaction, Timeout timeout);
    std::optional<Reply> await_any_reply(Timeout timeout);

  private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    struct Client {
        int number;
        FileDescriptor connection;
        std::size_t max_packet_size;
        /// The packets that the connection had no room for yet.
        std::deque<std::string> unsent = {};
        bool closing = false;
    };

    // Run on the Manager's thread.
    void serve();
    bool handle_events(const std::vector<pollfd>& events);
    void accept_clients();
    void receive_from(Client& client);
    void remove_closing_clients();

    // The caller of all below holds the lock.
    std::vector<pollfd> poll_set() const;
    Client* find_client(int number);
    Client& client_for(Opcode opcode);
    void deliver(Client& client, const std::string& text);
    void flush(Client& client);
    const Packet& record(const Client& client, Direction direction, const std::string& text);
    void handle(Client& client, const Packet& packet);
    void answer(Client& client, const Request& request);
    void keep_reply(const ReplyHead& head, const Packet& packet);
    std::map<int, std::vector<Target>> by_client(const std::vector<Target>& targets);
    template <typename Done>
    bool wait(Lock& lock, Timeout timeout, Done done);
    template <typename Wanted>
    std::optional<Reply> take_reply(Timeout timeout, Wanted wanted);
    void wake_thread() const;

    const std::string path_;
    const FileDescriptor wake_;

    std::mutex lifecycle_mutex_;
    std::thread thread_;
    FileDescriptor listener_;

    std::atomic<std::int64_t> last_transaction_{0};

    mutable std::mutex mutex_;
    /// Notified after every change that a waiting call may be waiting for.
    std::condition_variable changed_;
    bool running_ = false;
    /// Only the Manager's thread adds and removes elements.
    std::list<Client> clients_;
    int last_client_ = 0;
    PacketLog log_;
    Answers answers_;
    OpcodeRoutes routes_;
    PacketObserver on_packet_;
    ConnectionObserver on_connection_;
    /// When each task that has no reply yet was sent.
    std::map<std::int64_t, Clock::time_point> pending_tasks_;
    std::deque<Reply> replies_;
};

}  // namespace manager
