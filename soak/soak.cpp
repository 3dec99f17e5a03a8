#include "soak.h"

#include <sys/wait.h>

#include <algorithm>
#include <thread>

#include "contract.h"

namespace soak {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kInFlight = 64;
// The tasks that a cycle begins with all run at the same time, so that the process has had as many
// threads at once as it will ever have when it is warm.
constexpr auto kCrowdNap = 150ms;
constexpr std::size_t kSessions = 8;
constexpr auto kSessionInterval = 20ms;
constexpr auto kNoticeInterval = 3ms;
constexpr auto kRejectedInterval = 10ms;
constexpr auto kPoll = 1ms;

// A cycle is a time of load and the stop after it. All kinds of stops make a rotation.
constexpr auto kShortestCycle = 400ms;
constexpr auto kLongestCycle = 10s;
constexpr int kCyclesOfRun = 20;
constexpr std::size_t kRotation = 4;
constexpr std::size_t kFewestCycles = kRotation + 2;
constexpr int kWarmUpShare = 4;  // a quarter of the run

// Far beyond what anything takes that does not hang.
constexpr auto kReadyLimit = 40s;
constexpr auto kDrainLimit = 30s;
constexpr auto kTrimLimit = 30s;
constexpr auto kEndLimit = 20s;

// The library does not release what it rejects while it decodes; that is so few tasks that the leak
// stays far below what the check of the memory tolerates.
constexpr std::size_t kMostUndecodable = 100;

// A shorter run has not seen enough for the memory to stay the same.
constexpr auto kMemoryDecides = 30s;

constexpr manager::Opcode kNoOpcode = 0x77;
constexpr manager::Subsystem kNoSubsystem = 99;

constexpr auto kStillFor = 200ms;
constexpr auto kStillLimit = 5s;

template <class Range>
auto& any_of_them(Range& range, Random& random) {
    return range[random() % std::size(range)];
}

std::uint64_t to_ns(std::chrono::steady_clock::time_point time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

std::string function_for(std::chrono::milliseconds nap, std::uint64_t digits) {
    if (nap > 0ms) return std::string(kNap) + std::to_string(nap.count());
    return "function_" + std::to_string(digits % 100);
}

std::string notice_message(std::uint64_t number) {
    const Notice notice = notice_of(number);
    const manager::Affected affected{notice.session, notice.package};
    switch (notice.kind) {
        case NoticeKind::kPermission:
            return manager::permission_change_message(notice.name, notice.granted, affected);
        case NoticeKind::kState:
            return manager::state_change_message(notice.name, notice.value, affected);
        default:
            return manager::setting_change_message(notice.name, notice.value, affected);
    }
}

// Returns the number that follows `key` in `text`, 0 if it is not there.
std::uint64_t number_after(const std::string& text, std::string_view key) {
    const std::size_t found = text.find(key);
    if (found == std::string::npos) return 0;
    return std::strtoull(text.c_str() + found + key.size(), nullptr, 10);
}

void raise(Usage& highest, const Usage& usage) {
    highest.memory_kib = std::max(highest.memory_kib, usage.memory_kib);
    highest.threads = std::max(highest.threads, usage.threads);
    highest.descriptors = std::max(highest.descriptors, usage.descriptors);
}

}  // namespace

Soak::Soak(const Options& options)
    : options_(options),
      service_(options.service_program, [this](const Record& record) { inbox_.add(record); }) {}

bool Soak::run() {
    managers_.start();
    try {
        await_ready(1);
        run_cycles();
        finish();
    } catch (const InVain&) {
        // The finding is noted, and the rest would only follow from it.
    }
    print_errors(service_.errors());
    print_report(report());
    findings_.print();
    return findings_.all_hold();
}

// ---------------------------------------------------------------------------------------------
// The phases

void Soak::run_cycles() {
    using std::chrono::milliseconds;
    const milliseconds cycle =
        std::clamp<milliseconds>(options_.duration / kCyclesOfRun, kShortestCycle, kLongestCycle);
    const Clock::time_point end = begin_ + options_.duration;
    while (true) {
        run_load(std::min(Clock::now() + cycle, std::max(end, Clock::now() + kShortestCycle)));
        if (++cycles_ >= kFewestCycles && Clock::now() >= end) return;
        stop(static_cast<Stop>(cycles_ % kRotation));
    }
}

void Soak::run_load(Clock::time_point end) {
    const Clock::time_point begin = Clock::now();
    crowd_ = kInFlight;
    for (Clock::time_point now = begin; now < end; now = Clock::now()) {
        start_due_session(now);
        end_old_sessions(now);
        send_due_notice(now);
        send_due_rejected(now);
        send_tasks();
        take_events(kPoll);
        show_progress(now);
    }
    loaded_ += Clock::now() - begin;
}

// Ends all sessions and waits for all that is under way.
void Soak::drain() {
    const auto settled = [this] {
        end_old_sessions(Clock::time_point::max());
        return sessions_.empty() && tasks_.is_settled() && session_book_.is_settled() &&
               notices_.is_settled();
    };
    try {
        await(kDrainLimit, settled, [] { return "the end of all that was under way"; });
    } catch (const InVain&) {
        close_books();
        throw;
    }
}

// Nothing can come any more.
void Soak::close_books() {
    for (const Session& session : sessions_) {
        findings_.fail(Check::kSessions, "no response for session " + std::to_string(session.id));
    }
    tasks_.close();
    session_book_.close();
    notices_.close();
}

// Nothing is under way, so that the figures of different times can be compared.
void Soak::observe_usage() {
    await_stillness();
    trimmed_ = false;
    service_.order('t');
    await(
        kTrimLimit, [this] { return trimmed_; }, [] { return "the service to give back memory"; });
    const Usage usage = service_.usage();
    last_usage_ = usage;
    raise(highest_usage_, usage);
    const bool is_warm =
        cycles_ >= kRotation && Clock::now() - begin_ >= options_.duration / kWarmUpShare;
    if (is_warm && !warm_) warm_ = usage;
}

// A thread that has sent its reply may yet have to end, and so may a receive thread.
void Soak::await_stillness() {
    const auto limit = Clock::now() + kStillLimit;
    Usage usage = service_.usage();
    for (auto still = Clock::now() + kStillFor; Clock::now() < std::min(still, limit);) {
        take_events(10ms);
        const Usage next = service_.usage();
        if (next.threads != usage.threads || next.descriptors != usage.descriptors) {
            still = Clock::now() + kStillFor;
        }
        usage = next;
    }
}

void Soak::stop(Stop kind) {
    ++stops_[static_cast<std::size_t>(kind)];
    switch (kind) {
        case Stop::kManagerAfterDraining:
            drain();
            observe_usage();
            return stop_manager();
        case Stop::kManagerAbruptly:
            tasks_.cut(false);
            return stop_manager();
        case Stop::kServiceAfterDraining:
            drain();
            observe_usage();
            return start_over(false);
        default:
            return start_over(true);
    }
}

void Soak::stop_manager() {
    const std::size_t times = times_ready_ + 1;
    questions_.disturbed(to_ns(Clock::now()));
    managers_.stop();
    take_events(0ms);
    tasks_.drop_undelivered();
    notices_.drop_undelivered();
    std::this_thread::sleep_for(std::chrono::milliseconds(10 + random_() % 150));
    managers_.start();
    await_ready(times);
    session_book_.connected_after_loss();
}

// Has the service take leave and come back.
void Soak::start_over(bool abruptly) {
    const std::size_t times = times_ready_ + 1;
    disconnected_ = false;
    questions_.disturbed(to_ns(Clock::now()));
    if (abruptly) tasks_.cut(true);
    service_.order(random_() % 2 == 0 ? 'd' : 'p');
    const auto left = [&] {
        if (abruptly && !disconnected_) {
            send_tasks();
            tasks_.cut(true);
        }
        return disconnected_;
    };
    await(kReadyLimit, left, [] { return "the service to take leave"; });
    tasks_.drop_undelivered();
    notices_.drop_undelivered();
    await_ready(times);
    notices_.drop_unread();
    session_book_.connected_after_leave();
}

void Soak::await_ready(std::size_t times) {
    await(
        kReadyLimit, [&] { return times_ready_ >= times; },
        [] { return "the service to get ready"; });
    sessions_.clear();
    managers_.follow_service();
}

void Soak::finish() {
    drain();
    observe_usage();
    service_.end_orders();
    const auto status = service_.await_end(kEndLimit);
    if (!status) {
        findings_.fail(Check::kProgress, "the end of the service");
        throw InVain();
    }
    take_events(0ms);
    managers_.stop();
    take_events(0ms);
    if (*status != 0) findings_.fail(Check::kService, "wait status " + std::to_string(*status));
    if (!service_.errors().empty()) findings_.fail(Check::kService, "standard error, see above");
    close_books();
    markers_.close();
    judge_usage();
}

// ---------------------------------------------------------------------------------------------
// The load

void Soak::send_tasks() {
    std::vector<const Session*> active;
    for (const Session& session : sessions_) {
        if (session.stage == Session::Stage::kActive) active.push_back(&session);
    }
    // What has come in is to be looked at now and then.
    for (std::size_t i = 0; i < kInFlight && !active.empty(); ++i) {
        if (tasks_.in_flight() >= kInFlight) return;
        send_task(*any_of_them(active, random_));
    }
}

// Most tasks take no time of their own, some a little, and few so much that they outlive a stop.
std::chrono::milliseconds Soak::make_nap() {
    if (crowd_ > 0) {
        --crowd_;
        return kCrowdNap;
    }
    const auto chance = random_() % 512;
    if (chance == 0) return 300ms;
    return chance < 32 ? std::chrono::milliseconds(1 + random_() % 20) : 0ms;
}

void Soak::send_task(const Session& session) {
    const manager::Target& target = any_of_them(session.targets, random_);
    const manager::Subsystem subsystem = any_of_them(target.subsystems, random_);
    const auto nap = make_nap();
    const std::string function = function_for(nap, random_());
    const Arguments arguments = make_arguments(random_);
    const std::uint64_t digest = hash_of(function + arguments.rendering);
    const std::uint32_t transaction =
        tasks_.open({target.opcode, subsystem, session.id, function, arguments.count, digest, nap});
    send(manager::exec_task_message(
        {session.id, target.opcode, subsystem, function, arguments.json}, transaction));
}

void Soak::send_due_rejected(Clock::time_point now) {
    if (now < next_rejected_) return;
    next_rejected_ = now + kRejectedInterval;
    send_rejected(now);
}

// Each is to be rejected for one reason alone.
void Soak::send_rejected(Clock::time_point now) {
    const auto active = std::find_if(sessions_.begin(), sessions_.end(), [](const Session& s) {
        return s.stage == Session::Stage::kActive;
    });
    if (active == sessions_.end()) return;
    const manager::Target& target = active->targets.front();
    manager::Task task{active->id, target.opcode, target.subsystems.front(), "rejected", "[]"};
    const auto starting = std::find_if(sessions_.begin(), sessions_.end(), [](const Session& s) {
        return s.stage == Session::Stage::kStarting;
    });
    switch (random_() % 4) {
        case 0:
            task.session = 0;
            break;
        case 1:
            task.subsystem = kNoSubsystem;
            break;
        case 2:
            if (starting == sessions_.end()) return;
            task = {starting->id, starting->targets.front().opcode,
                    starting->targets.front().subsystems.front(), "rejected", "[]"};
            break;
        default:
            if (!undecodable_due(now)) {
                task.opcode = kNoOpcode;
                break;
            }
            ++undecodable_;
            task.args = make_undecodable_arguments(random_);
    }
    send(manager::exec_task_message(task, tasks_.open_rejected()));
}

// None where leaks are looked for: to overlook what the library leaks of these on purpose would be
// to overlook leaks of all tasks.
bool Soak::undecodable_due(Clock::time_point now) const {
    if (options_.sanitizers.find("address") != std::string::npos) return false;
    const auto share = (now - begin_) * kMostUndecodable / options_.duration;
    return undecodable_<kMostUndecodable&& static_cast<std::size_t>(share)> undecodable_;
}

void Soak::send_due_notice(Clock::time_point now) {
    if (now < next_notice_) return;
    next_notice_ = now + kNoticeInterval;
    send(notice_message(notices_.open()));
}

std::vector<manager::Target> Soak::some_services() {
    std::vector<manager::Target> targets;
    const auto first = random_() % kServices.size();
    for (std::size_t i = 0; i < kServices.size(); ++i) {
        if (i != first && random_() % 2 == 0) continue;
        manager::Target target{kServices.at(i).opcode, {}};
        const auto last = 1 + random_() % kServices.at(i).subsystems;
        for (manager::Subsystem id = 1; id <= last; ++id) target.subsystems.push_back(id);
        targets.push_back(std::move(target));
    }
    return targets;
}

void Soak::start_due_session(Clock::time_point now) {
    if (sessions_.size() >= kSessions || now < next_session_) return;
    next_session_ = now + kSessionInterval;
    Session session{++last_session_, some_services(),
                    now + std::chrono::milliseconds(50 + random_() % 500)};
    send(manager::start_session_message(session.id, 1, session.targets));
    sessions_.push_back(std::move(session));
}

void Soak::end_old_sessions(Clock::time_point now) {
    for (Session& session : sessions_) {
        if (session.stage != Session::Stage::kActive || now < session.end) continue;
        session.stage = Session::Stage::kEnding;
        send_end(session, session.id % 2 == 0);
    }
}

// Ends the services of the session by their names, or else the whole session.
void Soak::send_end(const Session& session, bool by_name) {
    using manager::end_session_message;
    send(end_session_message(session.id, 1,
                             by_name ? session.targets : std::vector<manager::Target>()));
}

// The library shall know nothing of the session any more.
void Soak::probe_ended(const Session& session) {
    const manager::Task task{session.id, session.targets.front().opcode, kEndedProbeSubsystem,
                             "rejected", "[]"};
    send(manager::exec_task_message(task, tasks_.open_rejected()));
}

// ---------------------------------------------------------------------------------------------
// What comes in

void Soak::take_events(std::chrono::milliseconds limit) {
    for (const Event& event : inbox_.take(limit)) {
        std::visit([this](const auto& content) { handle(content); }, event);
    }
}

void Soak::handle(const manager::Packet& packet) {
    if (packet.direction == manager::Direction::ToClient) return handle_sent(packet);
    const std::string& text = packet.text;
    if (text.compare(0, kMarkerPrefix.size(), kMarkerPrefix) == 0) return markers_.came(text);
    if (text.find("_session\"") != std::string::npos) return handle_response(text);
    tasks_.replied(packet);
}

void Soak::handle_sent(const manager::Packet& packet) {
    const std::uint64_t notice = number_after(packet.text, kNoticePrefix);
    if (notice != 0) return notices_.delivered(notice);
    const std::uint64_t transaction = number_after(packet.text, R"("transac_id":)");
    tasks_.delivered(static_cast<std::uint32_t>(transaction), packet.time);
}

void Soak::handle_response(const std::string& response) {
    const std::uint64_t id = number_after(response, R"("session_id":)");
    const auto session = std::find_if(sessions_.begin(), sessions_.end(),
                                      [&](const Session& s) { return s.id == id; });
    if (session == sessions_.end()) {
        findings_.fail(Check::kSessions, "unexpected " + response);
    } else if (!advance(*session, response)) {
        sessions_.erase(session);
    }
}

// Takes the next step with a session. Returns whether it goes on.
bool Soak::advance(Session& session, const std::string& response) {
    const auto expect = [&](const std::string& expected) {
        if (response == expected) return;
        findings_.fail(Check::kSessions, response + " instead of " + expected);
    };
    const bool refused = is_refused_session(session.id);
    switch (session.stage) {
        case Session::Stage::kStarting:
            expect(start_response(session, !refused));
            session.stage = refused ? Session::Stage::kEndingAgain : Session::Stage::kActive;
            if (refused) {
                send_end(session, false);
            } else {
                send(manager::ready_session_message(session.id, session.targets));
            }
            return true;
        case Session::Stage::kEnding:
            expect(end_response(session, true));
            probe_ended(session);
            if (session.id % 4 > 1) return false;
            session.stage = Session::Stage::kEndingAgain;
            send_end(session, false);
            return true;
        case Session::Stage::kEndingAgain:
            expect(end_response(session, false));
            return false;
        default:
            findings_.fail(Check::kSessions, "unexpected " + response);
            return false;
    }
}

void Soak::handle(const Record& record) {
    const auto transaction = static_cast<std::uint32_t>(record.first);
    switch (record.kind) {
        case RecordKind::kReady:
            ++times_ready_;
            return questions_.ready(record.first);
        case RecordKind::kTaskRan:
            return tasks_.ran(transaction);
        case RecordKind::kReplyLost:
            return tasks_.reply_lost(transaction);
        case RecordKind::kSession:
            return session_book_.told(record);
        case RecordKind::kStillInTable:
            return findings_.fail(Check::kSessions, "an ended session in the table");
        case RecordKind::kTerminated:
            return session_book_.terminated();
        case RecordKind::kReconnected:
            return session_book_.reconnected();
        case RecordKind::kNotice:
            return notices_.told(record);
        case RecordKind::kWrongNotice:
            return notices_.told_wrongly(record.first);
        case RecordKind::kTrimmed:
            trimmed_ = true;
            return;
        case RecordKind::kMarkerSent:
            return markers_.sent(record.first);
        default:
            return questions_.told(record);
    }
}

template <class Done, class Describe>
void Soak::await(std::chrono::milliseconds limit, Done done, Describe describe) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (!done()) {
        take_events(kPoll);
        show_progress(Clock::now());
        if (service_.has_ended()) {
            findings_.fail(Check::kService, "it ended before its time");
            throw InVain();
        }
        if (Clock::now() < deadline) continue;
        findings_.fail(Check::kProgress, describe());
        throw InVain();
    }
}

// ---------------------------------------------------------------------------------------------
// The figures

void Soak::show_progress(Clock::time_point now) {
    if (now < next_progress_) return;
    next_progress_ = now + progress_interval();
    print_progress({now - begin_, tasks_.answered(), tasks_.in_flight(), cycles_,
                    service_.usage().memory_kib});
}

void Soak::judge_usage() {
    if (!warm_) {
        findings_.fail(Check::kProgress, "the end of the warm-up");
        return;
    }
    const auto compare = [this](Check check, std::size_t warm, std::size_t last) {
        if (last <= warm) return;
        findings_.fail(check, std::to_string(warm) + " then, " + std::to_string(last) + " at last");
    };
    compare(Check::kThreads, warm_->threads, last_usage_.threads);
    compare(Check::kDescriptors, warm_->descriptors, last_usage_.descriptors);
    compare(Check::kMemory, warm_->memory_kib * 105 / 100, last_usage_.memory_kib);
    if (!options_.sanitizers.empty()) {
        findings_.only_report(Check::kMemory,
                              "the sanitizer keeps what was released, and notes of each access");
    } else if (options_.duration < kMemoryDecides) {
        findings_.only_report(Check::kMemory, "the run was too short for the memory to settle");
    }
}

Report Soak::report() {
    const auto stops = [this](Stop kind) { return stops_[static_cast<std::size_t>(kind)]; };
    Report report;
    report.duration = Clock::now() - begin_;
    report.loaded = loaded_;
    report.connections = times_ready_;
    report.manager_stops_graceful = stops(Stop::kManagerAfterDraining);
    report.manager_stops_abrupt = stops(Stop::kManagerAbruptly);
    report.leaves_graceful = stops(Stop::kServiceAfterDraining);
    report.leaves_abrupt = stops(Stop::kServiceAbruptly);
    report.undecodable = undecodable_;
    report.warm = warm_.value_or(Usage());
    report.last = last_usage_;
    report.highest = highest_usage_;
    report.latencies = tasks_.take_latencies();
    report.tasks = &tasks_;
    report.sessions = &session_book_;
    report.notices = &notices_;
    report.questions = &questions_;
    report.markers = &markers_;
    return report;
}

}  // namespace soak
