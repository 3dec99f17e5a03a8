// The account of all sessions. Used by one thread.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "findings.h"
#include "manager/messages.h"
#include "record.h"

namespace soak {

// One session on the Manager's side.
struct Session {
    enum class Stage {
        kStarting,     // waits for the response to its start
        kActive,       // takes tasks
        kEnding,       // waits for the response to its end
        kEndingAgain,  // waits for the refusal of a second end, which shows that it left the table
    };

    std::uint32_t id;
    std::vector<manager::Target> targets;
    std::chrono::steady_clock::time_point end;  // takes no more tasks from then on
    Stage stage = Stage::kStarting;
};

// Follows what the service is told of each of its services in each session, and knows the only
// right response to each request.
class SessionBook {
  public:
    explicit SessionBook(Findings& findings) : findings_(findings) {}

    // What the service reports.
    void told(const Record& record);
    void terminated() { ++terminated_; }
    void reconnected() { ++reconnected_; }

    // The Manager has come back or the service has started over; nothing of before may follow. A
    // service that starts over by itself leaves sessions in the table until the next loss of the
    // Manager, which ends them as well.
    void connected_after_loss();
    void connected_after_leave();

    // Whether all that was started has ended, but for what a service left behind itself.
    bool is_settled() const;

    // Closes the account.
    void close();

    std::size_t started() const { return started_; }
    std::size_t readied() const { return readied_; }
    std::size_t ended() const { return ended_; }
    std::size_t left() const { return left_; }

  private:
    enum class State { kStarted, kReady, kLeft };
    using Key = std::pair<std::uint64_t, std::uint64_t>;  // session, service

    std::string text_of(const Key& key) const;

    Findings& findings_;
    std::map<Key, State> services_;
    std::uint64_t losses_ = 0;
    std::uint64_t terminated_ = 0;
    std::uint64_t reconnected_ = 0;
    std::size_t started_ = 0;
    std::size_t readied_ = 0;
    std::size_t ended_ = 0;
    std::size_t left_ = 0;
};

std::string start_response(const Session& session, bool success);
std::string end_response(const Session& session, bool success);

}  // namespace soak
