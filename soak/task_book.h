// The account of all tasks. Used by one thread.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "findings.h"
#include "manager/packet.h"

namespace soak {

// What a reply must say.
struct TaskIdentity {
    std::uint32_t opcode;
    std::uint32_t subsystem;
    std::uint32_t session;
    std::string function;
    std::size_t arguments;
    std::uint64_t digest;
    std::chrono::milliseconds nap;  // the time that the task itself takes
};

// Pairs each task that was sent with the run that the service reports and with its reply, or with
// the service's word that the reply could not be sent. That is exact even where a stop cuts a task
// off: the Manager takes in all that the service sent before the end of the connection, and the
// library all that the Manager sent before it stopped. Only what the service has not read when it
// takes leave itself never runs.
//
// A task leaves the book when it has run and its reply has come or was lost. Transactions are given
// out in order, so that anything about one that is not in the book is a repetition or stray.
class TaskBook {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit TaskBook(Findings& findings) : findings_(findings) {}

    // Returns the transaction for a task that is about to be sent, or for one that the library
    // shall reject.
    std::uint32_t open(TaskIdentity identity);
    std::uint32_t open_rejected();

    // The packet of the task has left for the service.
    void delivered(std::uint32_t transaction, Time time);
    void ran(std::uint32_t transaction);
    void reply_lost(std::uint32_t transaction);
    void replied(const manager::Packet& reply);

    // The tasks in the book are cut off: by the service itself, or else by a stop of the Manager.
    void cut(bool by_service);

    // The connection has ended: what has not left for the service never will.
    void drop_undelivered();

    // How many tasks wait for their reply and may hope for it.
    std::size_t in_flight() const { return in_flight_; }

    // Whether nothing is to be expected any more. Those that a service did not read before it took
    // leave are no longer in the book then.
    bool is_settled() const;

    // Closes the account, when nothing can come any more.
    void close();

    std::size_t sent() const { return sent_; }
    std::size_t ran() const { return ran_; }
    std::size_t answered() const { return answered_; }
    std::size_t rejected() const { return rejected_.size(); }
    std::size_t lost() const { return lost_; }
    std::size_t cut_off() const { return cut_off_; }
    std::size_t never_ran() const { return never_ran_; }
    // Milliseconds that replies took beyond the task's own time; the book is not to be used after.
    std::vector<float> take_latencies() { return std::move(latencies_); }

  private:
    struct Task {
        TaskIdentity identity;
        Time delivered{};
        bool was_delivered = false;
        bool ran = false;
        bool answered = false;
        bool lost = false;
        bool cut = false;
        bool cut_by_service = false;

        bool is_waiting() const { return !answered && !lost && !cut; }
        bool is_done() const { return ran && (answered || lost); }
        bool may_never_run() const { return cut_by_service && !ran && !answered && !lost; }
    };
    using Tasks = std::map<std::uint32_t, Task>;

    // Finds the task that something is told of. If there is none, says so under `check`.
    Tasks::iterator find(std::uint32_t transaction, Check check, const char* what);
    template <class Change>
    void change(Tasks::iterator task, Change change);
    void compare(const Task& task, std::uint32_t transaction, const std::string& text);

    Findings& findings_;
    std::uint32_t last_ = 0;
    Tasks tasks_;
    std::set<std::uint32_t> rejected_;
    std::size_t in_flight_ = 0;
    std::size_t sent_ = 0;
    std::size_t ran_ = 0;
    std::size_t answered_ = 0;
    std::size_t lost_ = 0;
    std::size_t cut_off_ = 0;
    std::size_t never_ran_ = 0;
    std::vector<float> latencies_;
};

}  // namespace soak
