// The course of the soak test: load, stops of all kinds, and the accounts of what came of it.
//
// Thread-safety: used by one thread, but kill_service() may be called from any.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "child_process.h"
#include "findings.h"
#include "inbox.h"
#include "managers.h"
#include "message_books.h"
#include "report.h"
#include "session_book.h"
#include "task_book.h"

namespace soak {

struct Options {
    std::chrono::milliseconds duration;
    std::string service_program;
    // Which sanitizers are built in, empty if none is.
    std::string sanitizers;
};

class Soak {
  public:
    explicit Soak(const Options& options);

    // Returns whether all checks hold. Prints the progress and the closing table.
    bool run();

    void kill_service() const { service_.kill(); }

  private:
    using Clock = std::chrono::steady_clock;
    // In the order of their rotation. After an abrupt leave of the service the Manager stops, which
    // clears what the former left in the table of sessions.
    enum class Stop {
        kManagerAfterDraining,
        kServiceAbruptly,
        kManagerAbruptly,
        kServiceAfterDraining,
    };

    // Thrown when something was waited for in vain, which ends the run.
    struct InVain {};

    // The phases. Each throws InVain when it waits in vain.
    void run_cycles();
    void run_load(Clock::time_point end);
    void drain();
    void close_books();
    void observe_usage();
    void await_stillness();
    void stop(Stop kind);
    void stop_manager();
    void start_over(bool abruptly);
    void await_ready(std::size_t times);
    void finish();

    // The load.
    void send_tasks();
    void send_task(const Session& session);
    std::chrono::milliseconds make_nap();
    void send_due_rejected(Clock::time_point now);
    void send_rejected(Clock::time_point now);
    bool undecodable_due(Clock::time_point now) const;
    void send_due_notice(Clock::time_point now);
    void start_due_session(Clock::time_point now);
    void end_old_sessions(Clock::time_point now);
    void probe_ended(const Session& session);
    void send_end(const Session& session, bool by_name);
    std::vector<manager::Target> some_services();
    void send(const std::string& text) { managers_.send(text); }

    // What comes in.
    void take_events(std::chrono::milliseconds limit);
    void handle(const manager::Packet& packet);
    void handle(const Record& record);
    void handle(const Disconnection&) { disconnected_ = true; }
    void handle_sent(const manager::Packet& packet);
    void handle_response(const std::string& response);
    bool advance(Session& session, const std::string& response);

    template <class Done, class Describe>
    void await(std::chrono::milliseconds limit, Done done, Describe describe);

    void show_progress(Clock::time_point now);
    void judge_usage();
    Report report();

    const Options options_;
    const Clock::time_point begin_ = Clock::now();
    Findings findings_;
    TaskBook tasks_{findings_};
    SessionBook session_book_{findings_};
    NoticeBook notices_{findings_};
    QuestionBook questions_{findings_};
    MarkerBook markers_{findings_};
    Random random_{1};

    Inbox inbox_;
    Managers managers_{inbox_};
    ChildProcess service_;

    std::vector<Session> sessions_;
    std::uint32_t last_session_ = 0;
    Clock::time_point next_session_{};
    Clock::time_point next_notice_{};
    Clock::time_point next_rejected_{};
    Clock::time_point next_progress_{};
    bool disconnected_ = false;
    std::size_t times_ready_ = 0;
    bool trimmed_ = false;

    std::size_t cycles_ = 0;
    std::size_t stops_[4] = {};
    std::size_t crowd_ = 0;  // so many tasks are still to take their time together
    std::size_t undecodable_ = 0;
    std::optional<Usage> warm_;
    Usage last_usage_;
    Usage highest_usage_;
    Clock::duration loaded_{};
};

}  // namespace soak
