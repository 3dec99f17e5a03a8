// Puts the library under load for a while: a Manager in this process, a service in another, both
// in a /dev of their own. Then come rounds of chance, and a table of figures and checks.

#include <fmt/ranges.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "arguments.h"
#include "manager/Manager.h"
#include "manager/latencies.h"
#include "private_dev/enter_private_dev.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using Seconds = std::chrono::duration<double>;
using manager::Ending;
using manager::SimulatedManager;

constexpr std::size_t kInFlight = 64;
constexpr std::size_t kSessions = 8;
constexpr Milliseconds kLongOutage = 22s;  // the library tries to connect again for 20 s
constexpr auto kRunWithLongOutage = 240s;
constexpr auto kMemoryDecides = 30s;  // a shorter run has not seen enough of it
constexpr auto kLimit = 60s;          // far beyond what anything takes that does not hang
constexpr auto kOutlived = 1s;        // what is older than this has run or never will
// The library does not release what it rejects while it decodes; that is so few tasks that the leak
// stays far below what the check of the memory tolerates.
constexpr std::size_t kMostUndecodable = 100;

// Something that must hold.
struct Check {
    const char* title;
    std::string tolerance = {};  // why it does not decide
    std::size_t failures = 0;
    std::string example = {};  // the first

    void fail(const std::string& what) {
        if (failures++ == 0) example = what;
    }
};

// How a connection ends. The library reads all that the Manager sent before it closed, and the
// Manager all that the service sent before it left; neither is so after a reset.
enum class Cut { kNone, kByManager, kByService, kByReset };

struct Task {
    std::string reply;
    Milliseconds nap{};
    Clock::time_point delivered{};
    Cut cut = Cut::kNone;
    Clock::time_point when_cut{};
};

struct Usage {
    std::size_t memory_kib = 0;  // resident
    std::size_t threads = 0;
    std::size_t descriptors = 0;
};

// The service process, watched from outside. To be started while there is one thread.
class Process {
  public:
    explicit Process(const std::string& argument) {
        if (::ftruncate(memory_, sizeof(Shared)) != 0) std::perror("ftruncate");
        pid_ = ::fork();
        if (pid_ == 0) run(argument);
    }
    ~Process() {
        if (!has_ended()) ::kill(pid_, SIGKILL);
        if (!status_) ::waitpid(pid_, nullptr, 0);
        ::munmap(&shared, sizeof(Shared));
        ::close(memory_);
        std::fclose(errors_);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    bool has_ended() {
        int status = 0;
        if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
        return status_.has_value();
    }
    // What it should not have written or ended with.
    std::string complaint() const {
        std::string text(65536, '\0');
        std::rewind(errors_);
        text.resize(std::fread(text.data(), 1, text.size(), errors_));
        return status_.value_or(0) == 0 ? text : fmt::format("status {}\n{}", *status_, text);
    }
    Usage usage() const {
        const std::string directory = fmt::format("/proc/{}/", pid_);
        std::error_code error;
        const std::filesystem::directory_iterator files(directory + "fd", error);
        return {number_in(directory + "smaps_rollup", "\nRss:"),
                number_in(directory + "status", "\nThreads:"),
                static_cast<std::size_t>(std::distance(begin(files), end(files)))};
    }

  private:
    [[noreturn]] void run(const std::string& argument) const {
        constexpr const char* kProgram = VEXON_SOAK_SERVICE;
        ::dup2(::fileno(errors_), STDERR_FILENO);
        ::dup2(memory_, 3);
        ::execl(kProgram, kProgram, argument.empty() ? nullptr : argument.c_str(), nullptr);
        ::_exit(127);
    }
    static std::size_t number_in(const std::string& file, std::string_view key) {
        std::ifstream stream(file);
        return number_after({std::istreambuf_iterator<char>(stream), {}}, key);
    }

    std::FILE* const errors_ = std::tmpfile();
    const int memory_ = ::memfd_create("soak", 0);
    pid_t pid_ = -1;
    std::optional<int> status_;

  public:
    Shared& shared = *static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0));
};

// A session is started, takes tasks until its end, is ended and, in part, ended again, which is to
// be refused, since it has left the table.
struct Session {
    enum class Stage { kStarting, kActive, kEnding, kEndingAgain };
    std::uint32_t id;
    std::vector<manager::Target> targets;
    Clock::time_point end;
    Stage stage = Stage::kStarting;

    std::string response(const char* what, bool success, const std::string& more = "") const {
        return fmt::format(R"({{"req_type":"{}_session","session_id":{},"Result":"{}"{}}})", what,
                           id, success ? "Success" : "Failed", more);
    }
    std::string start_response(bool success) const {
        std::vector<std::string> all;
        for (const auto& [opcode, ids] : targets) {
            const auto list = fmt::format(R"({{"id":{}}})", fmt::join(ids, R"(},{"id":)"));
            all.push_back(fmt::format(R"({{"id":"0x{:08x}","subsystems":[{}]}})", opcode, list));
        }
        if (!success) all.clear();
        return response("start", success, fmt::format(R"(,"opcodes":[{}])", fmt::join(all, ",")));
    }
    std::uint32_t services() const {
        std::size_t count = 0;
        for (const auto& target : targets) count += target.subsystems.size();
        return static_cast<std::uint32_t>(count);
    }
};

// The stops in the order of their rotation. After an abrupt leave of the service the Manager stops,
// which clears what the former left in the table of sessions.
enum Stop { kManagerDrained, kServiceCut, kManagerCut, kServiceDrained, kManagerReset, kStops };

// Thrown when something was waited for in vain, which ends the run.
struct InVain {};

class Soak {
  public:
    Soak(std::chrono::seconds duration, unsigned seed) : duration_(duration), seed_(seed) {}

    // Returns whether all checks hold. Prints the progress and the closing table.
    bool run() {
        try {
            run_load();
            take_chances();
        } catch (const InVain&) {
            // The finding is noted, and the rest would only follow from it.
        }
        print_report();
        return std::all_of(checks_.begin(), checks_.end(), [](const Check* check) {
            return check->failures == 0 || !check->tolerance.empty();
        });
    }

  private:
    // ---- The course. Each step throws InVain when it waits in vain.

    void run_load() {
        Process service("");
        service_ = &service;
        start_managers();
        await_ready(1);
        const Milliseconds shortest = 400ms;
        const auto cycle = std::clamp<Milliseconds>(load_ / 20, shortest, 10s);
        const auto end = begin_ + load_;
        while (true) {
            run_cycle(std::min(Clock::now() + cycle, std::max(end, Clock::now() + shortest)));
            if (++cycles_ > kStops + 1 && Clock::now() >= end) break;
            stop(static_cast<Stop>(cycles_ % kStops));
        }
        drain();
        service.shared.order = 'f';
        await("the end of the service", [&] { return service.has_ended(); });
        stop_managers(Ending::Orderly);
        take_packets(0ms);
        if (!service.complaint().empty()) service_check_.fail(service.complaint());
        close_accounts();
        judge_usage();
        connections_ = service.shared.ready;
        queries_total_ = service.shared.queries;
        queries_answered_ = service.shared.answered_queries;
    }

    // The tasks that a cycle begins with all run at the same time, so that the process has had as
    // many threads at once as it will ever have when it is warm.
    void run_cycle(Clock::time_point end) {
        const Clock::time_point begin = Clock::now();
        crowd_ = kInFlight;
        for (auto now = begin; now < end; now = Clock::now()) {
            if (sessions_.size() < kSessions && is_due(next_session_, 20ms)) start_session();
            end_sessions(now);
            if (is_due(next_notice_, 3ms)) send_notice();
            if (is_due(next_rejected_, 10ms)) send_rejected();
            send_tasks();
            take_packets(1ms);
            sweep_tasks(kOutlived);
            show_progress();
        }
        loaded_ += Clock::now() - begin;
    }

    // Ends all sessions and waits for all that is under way.
    void drain() {
        try {
            await("the end of all that was under way", [this] {
                end_sessions(Clock::time_point::max());
                sweep_tasks(kOutlived);
                sweep_notices(false);
                return sessions_.empty() && notices_open_.empty() &&
                       std::all_of(tasks_.begin(), tasks_.end(),
                                   [this](const auto& entry) { return may_stay(entry); });
            });
        } catch (const InVain&) {
            close_accounts();
            throw;
        }
        observe_usage();
    }

    // Nothing is under way, so that the figures of different times can be compared. A thread that
    // has sent its reply may yet have to end, and so may a receive thread.
    void observe_usage() {
        const auto limit = Clock::now() + 5s;
        for (int still = 0; still < 20 && Clock::now() < limit; ++still) {
            const Usage before = service_->usage();
            take_packets(10ms);
            const Usage now = service_->usage();
            const bool same =
                now.threads == before.threads && now.descriptors == before.descriptors;
            if (!same) still = 0;
        }
        shared().order = 't';
        await("the service to give back memory", [this] { return service_->shared.order == 0; });
        last_ = service_->usage();
        most_kib_ = std::max(most_kib_, last_.memory_kib);
        const bool is_warm = cycles_ >= kStops && Clock::now() - begin_ >= load_ / 4;
        if (is_warm && !warm_) warm_ = last_;
    }

    void stop(Stop kind) {
        ++stops_.at(kind);
        if (kind == kManagerDrained || kind == kServiceDrained) drain();
        ready_ = shared().ready + 1;
        ++shared().disturbances;
        if (kind == kServiceDrained || kind == kServiceCut) {
            start_over(kind == kServiceCut);
        } else {
            lose_manager(kind);
        }
        ++shared().disturbances;
        sessions_.clear();
    }

    void lose_manager(Stop kind) {
        const bool is_reset = kind == kManagerReset;
        const bool is_long = kind == kManagerCut && duration_ >= kRunWithLongOutage &&
                             long_outages_ == 0 && Clock::now() - begin_ > load_ / 2;
        long_outages_ += is_long;
        const auto ends = counts_of(shared().receive_ends);
        const auto losses = shared().losses.load();
        const auto returns = shared().returns.load();
        if (is_reset) leave_replies_unread();
        cut(is_reset ? Cut::kByReset : Cut::kByManager);
        stop_managers(is_reset ? Ending::Abrupt : Ending::Orderly);
        take_packets(0ms);
        drop_undelivered();
        std::this_thread::sleep_for(is_long ? kLongOutage : Milliseconds(10 + random_() % 150));
        start_managers();
        await_ready(ready_);
        for (const Session& session : sessions_) close_session(session, true);
        for (const Session& session : left_sessions_) close_session(session, true);
        left_sessions_.clear();
        sweep_notices(is_reset);

        auto expected = ends;
        const bool saw_reset = is_reset && shared().receive_ends[VEXA_RECEIVE_END_RESET] !=
                                               ends[VEXA_RECEIVE_END_RESET];
        resets_ += saw_reset;
        ++expected[saw_reset ? VEXA_RECEIVE_END_RESET
                   : is_long ? VEXA_RECEIVE_END_TIMED_OUT
                             : VEXA_RECEIVE_END_RECONNECTED];
        const auto told = counts_of(shared().receive_ends);
        const bool returns_fit = shared().returns - returns == (saw_reset || is_long ? 0U : 1U);
        if (told == expected && returns_fit && shared().losses > losses) return;
        losses_.fail(fmt::format("stop {}: {} losses, {} returns, ends by reason {}",
                                 static_cast<int>(kind), shared().losses - losses,
                                 shared().returns - returns, fmt::join(told, " ")));
    }

    // From here on the Manager does not read, and replies are on their way.
    void leave_replies_unread() {
        for (auto* const manager : {plain_.get(), dedicated_.get()}) manager->set_reading(false);
        resynchronise_.fill(true);
        for (const auto end = Clock::now() + 50ms; Clock::now() < end;) {
            send_tasks();
            take_packets(1ms);
        }
    }

    // Has the service take leave and come back.
    void start_over(bool abruptly) {
        const std::size_t disconnected = disconnections_;
        if (abruptly) cut(Cut::kByService);
        shared().order = ++leaves_ % 2 == 0 ? 'd' : 'p';
        await("the service to take leave", [&] {
            if (abruptly && disconnected == disconnections_) {
                send_tasks();
                cut(Cut::kByService);
            }
            return disconnected != disconnections_;
        });
        take_packets(0ms);
        drop_undelivered();
        await_ready(ready_);
        sweep_notices(true);
        left_sessions_.insert(left_sessions_.end(), sessions_.begin(), sessions_.end());
    }

    void await_ready(std::uint32_t times) {
        await("the service to get ready", [&] { return shared().ready >= times; });
        const std::lock_guard lock(mutex_);
        peer_ = latest_;
    }

    template <class Done>
    void await(const char* what, Done done) {
        for (const auto deadline = Clock::now() + kLimit; !done();) {
            take_packets(1ms);
            show_progress();
            const bool has_ended = shared().order != 'f' && service_->has_ended();
            if (!has_ended && Clock::now() < deadline) continue;
            if (has_ended) service_check_.fail("it ended before its time");
            if (!has_ended) progress_.fail(what);
            if (!service_->complaint().empty()) service_check_.fail(service_->complaint());
            throw InVain();
        }
    }

    // ---- The Managers, at the plain and at the dedicated socket

    // A new start has new objects: those of before have logged each packet.
    void start_managers() {
        plain_ = open(manager::kDefaultPath);
        dedicated_ = open(manager::kDedicatedPath);
    }

    // What clients have sent until an orderly end is there to be taken afterwards.
    void stop_managers(Ending ending) {
        peer_ = {};
        for (auto* const own : {&plain_, &dedicated_}) {
            (*own)->stop(ending);
            own->reset();
        }
    }

    std::unique_ptr<SimulatedManager> open(const char* path) {
        auto opened = std::make_unique<SimulatedManager>(path);
        for (std::uint64_t number = 0; number < kNames; ++number) {
            if (is_granted(number)) opened->grant(name_of(number));
            opened->set_info(name_of(number), info_text(number));
        }
        opened->set_observer(
            [this, from = opened.get()](const manager::Packet& packet) {
                const std::lock_guard lock(mutex_);
                if (has(packet, R"("req_type":"REDY")")) latest_ = {from, packet.client};
                packets_.push_back(packet);
                came_.notify_one();
            },
            [this](const manager::ConnectionChange& change) {
                disconnections_ += change.change != manager::Change::Connected;
            });
        opened->start();
        return opened;
    }

    static bool has(const manager::Packet& packet, std::string_view part) {
        return packet.text.find(part) != std::string::npos;
    }

    // What is meant for a service that has gone is dropped.
    void send(const std::string& text) try {
        if (peer_.first != nullptr) peer_.first->send(peer_.second, text);
    } catch (const manager::ManagerError&) {
        peer_ = {};
    }

    // ---- The load

    static bool is_due(Clock::time_point& next, Milliseconds interval) {
        if (Clock::now() < next) return false;
        next = Clock::now() + interval;
        return true;
    }

    // Tasks are for a session that is active.
    const Session* any_active() {
        std::vector<const Session*> active;
        for (const Session& session : sessions_) {
            if (session.stage == Session::Stage::kActive) active.push_back(&session);
        }
        return active.empty() ? nullptr : active[random_() % active.size()];
    }

    void send_tasks() {
        // What has come in is to be looked at now and then.
        for (std::size_t i = 0; i < kInFlight && in_flight_ < kInFlight; ++i) {
            const Session* const session = any_active();
            if (session == nullptr) return;
            send_task(*session);
        }
    }

    // Most tasks take no time of their own, some a little, and few so much that they outlive a
    // stop.
    Milliseconds make_nap() {
        if (crowd_ > 0) return Milliseconds(crowd_-- > 0 ? 150 : 0);
        const auto chance = random_() % 512;
        return Milliseconds(chance == 0 ? 300 : chance < 32 ? 1 + random_() % 20 : 0);
    }

    void send_task(const Session& session) {
        const manager::Target& target = session.targets[random_() % session.targets.size()];
        const auto subsystem = target.subsystems[random_() % target.subsystems.size()];
        const auto nap = make_nap();
        const std::string function =
            fmt::format("{}{}", nap > 0ms ? kNap : "function_", nap > 0ms ? nap.count() : 7);
        const Arguments arguments = make_arguments(function, random_);
        const std::uint32_t transaction = new_transaction();
        const std::string reply = fmt::format(
            R"({{"opcode":"{}","name":"{}","subsys_id":"{}","req_type":"exec_task","return":{},)"
            R"("func":{{"digest":"{}"}},"transac_id":{},"status": 0,"session_id":{}}})",
            target.opcode, function, subsystem, arguments.count, arguments.digest, transaction,
            session.id);
        tasks_[transaction] = {reply, nap};
        ++in_flight_;
        send(manager::exec_task_message(
            {session.id, target.opcode, subsystem, function, arguments.json}, transaction));
    }

    void send_rejected(manager::Task task) {
        ++rejected_total_;
        send(manager::exec_task_message(task, new_transaction()));
    }

    // Each is to be rejected for one reason alone.
    void send_rejected() {
        const Session* session = any_active();
        if (session == nullptr) return;
        manager::Task task{session->id, session->targets[0].opcode, 1, "rejected"};
        const auto starting = std::find_if(sessions_.begin(), sessions_.end(), [](const auto& s) {
            return s.stage == Session::Stage::kStarting;
        });
        const auto reason = random_() % 4;
        if (reason == 0) task.session = 0;
        if (reason == 1) task.subsystem = 99;
        if (reason == 2) {
            if (starting == sessions_.end()) return;
            task = {starting->id, starting->targets[0].opcode, 1, "rejected"};
        }
        if (reason == 3 && !undecodable_due()) task.opcode = 0x77;
        if (reason == 3 && task.opcode != 0x77) task.args = make_undecodable_arguments(random_);
        undecodable_ += task.args != "[]";
        send_rejected(task);
    }

    // None where leaks are looked for: to overlook what the library leaks of these on purpose would
    // be to overlook leaks of all tasks.
    bool undecodable_due() const {
        if (std::string_view(VEXON_SANITIZERS).find("address") != std::string_view::npos) {
            return false;
        }
        const auto share = (Clock::now() - begin_) * kMostUndecodable / load_;
        return undecodable_ < std::min(kMostUndecodable, static_cast<std::size_t>(share));
    }

    void send_notice() {
        const Notice notice = notice_of(++last_notice_);
        const manager::Affected affected{notice.session, notice.package};
        Counter& told = shared().notices[last_notice_];
        check_notice(told);
        told = 0;
        notices_open_[last_notice_] = false;
        send(notice.kind == 0
                 ? manager::permission_change_message(notice.name, notice.granted, affected)
             : notice.kind == 1
                 ? manager::state_change_message(notice.name, notice.value, affected)
                 : manager::setting_change_message(notice.name, notice.value, affected));
    }

    void start_session() {
        Session session{++last_session_, {}, Clock::now() + Milliseconds(50 + random_() % 500)};
        const auto first = random_() % kServices.size();
        for (std::size_t i = 0; i < kServices.size(); ++i) {
            if (i != first && random_() % 2 == 0) continue;
            manager::Target target{kServices[i].opcode, {}};
            for (auto id = 1 + random_() % kServices[i].subsystems; id > 0; --id) {
                target.subsystems.insert(target.subsystems.begin(), static_cast<unsigned>(id));
            }
            session.targets.push_back(std::move(target));
        }
        for (auto* const counters : {&shared().starts, &shared().readies, &shared().ends}) {
            (*counters)[session.id] = 0;
        }
        send(manager::start_session_message(session.id, 1, session.targets));
        sessions_.push_back(std::move(session));
    }

    void end_sessions(Clock::time_point now) {
        for (Session& session : sessions_) {
            if (session.stage != Session::Stage::kActive || now < session.end) continue;
            session.stage = Session::Stage::kEnding;
            send_end(session, session.id % 2 == 0);
        }
    }

    // Ends the services of the session by their names, or else the whole session.
    void send_end(const Session& session, bool by_name) {
        send(manager::end_session_message(
            session.id, 1, by_name ? session.targets : std::vector<manager::Target>()));
    }

    // ---- What comes in

    void take_packets(Milliseconds limit) {
        std::unique_lock lock(mutex_);
        came_.wait_for(lock, limit, [this] { return !packets_.empty(); });
        const auto packets = std::exchange(packets_, {});
        lock.unlock();
        for (const manager::Packet& packet : packets) handle(packet);
    }

    void handle(const manager::Packet& packet) {
        if (packet.direction == manager::Direction::ToClient) {
            const auto notice = notices_open_.find(number_after(packet.text, kNoticePrefix));
            if (notice != notices_open_.end()) notice->second = true;
            notices_sent_ += has(packet, kNoticePrefix);
            const auto transaction = number_after(packet.text, R"("transac_id":)");
            const auto task = tasks_.find(static_cast<std::uint32_t>(transaction));
            if (!has(packet, R"("exec_task")") || task == tasks_.end()) return;
            task->second.delivered = packet.time;
            ++sent_;
        } else if (packet.text.rfind(kMarkerPrefix, 0) == 0) {
            take_marker(number_after(packet.text, kMarkerPrefix));
        } else if (has(packet, "_session\"")) {
            take_response(packet.text);
        } else if (has(packet, R"("req_type":"exec_task")")) {
            take_reply(packet);
        }
    }

    void take_response(const std::string& response) {
        const std::uint64_t id = number_after(response, R"("session_id":)");
        const auto session = std::find_if(sessions_.begin(), sessions_.end(),
                                          [&](const Session& s) { return s.id == id; });
        if (session == sessions_.end()) return sessions_check_.fail("unexpected " + response);
        if (advance(*session, response)) return;
        close_session(*session, false);
        sessions_.erase(session);
    }

    // Takes the next step with a session. Returns whether it goes on.
    bool advance(Session& session, const std::string& response) {
        using Stage = Session::Stage;
        const bool refused = is_refused_session(session.id);
        const std::string expected = session.stage == Stage::kStarting
                                         ? session.start_response(!refused)
                                         : session.response("end", session.stage == Stage::kEnding);
        if (response != expected) sessions_check_.fail(response + " instead of " + expected);
        if (session.stage == Stage::kStarting && !refused) {
            session.stage = Stage::kActive;
            send(manager::ready_session_message(session.id, session.targets));
            return true;
        }
        if (session.stage == Stage::kEnding) {
            // The library shall know nothing of the session any more.
            send_rejected(
                {session.id, session.targets[0].opcode, kEndedProbeSubsystem, "rejected"});
        }
        if (session.stage == Stage::kEndingAgain) return false;
        if (session.stage == Stage::kEnding && session.id % 4 > 1) return false;
        session.stage = Stage::kEndingAgain;
        send_end(session, false);
        return true;
    }

    // Each questioner numbers those that it has sent. A reset may swallow some.
    void take_marker(std::uint64_t number) {
        const std::size_t questioner = number % kQuestioners;
        std::uint64_t& last = markers_.at(questioner);
        const bool follows = number / kQuestioners == last + 1 ||
                             (resynchronise_[questioner] && number / kQuestioners > last);
        if (!follows) markers_check_.fail(fmt::format("{} after {}", number, last));
        resynchronise_[questioner] = false;
        last = number / kQuestioners;
        ++markers_total_;
    }

    // ---- The accounts of tasks. A task leaves when it has run and was replied to.

    using Tasks = std::map<std::uint32_t, Task>;

    std::uint32_t new_transaction() {
        check_slot(++last_transaction_);
        shared().ran[last_transaction_] = 0;
        shared().lost[last_transaction_] = 0;
        return last_transaction_;
    }

    // What has happened to a transaction of long ago, whose slot is to be used again.
    void check_slot(std::uint32_t transaction) {
        const std::uint32_t ran = shared().ran[transaction];
        const std::uint32_t lost = shared().lost[transaction];
        if (ran > 1 || lost > 1) once_.fail(fmt::format("{} runs, {} replies lost", ran, lost));
    }

    void fail(const Tasks::value_type& task, const char* what) {
        Check& check = task.second.cut == Cut::kNone ? once_ : cut_once_;
        check.fail(fmt::format("{} of transaction {}", what, task.first));
    }

    void take_reply(const manager::Packet& packet) {
        const auto number = number_after(packet.text, R"("transac_id":)");
        const auto found = tasks_.find(static_cast<std::uint32_t>(number));
        if (found == tasks_.end()) {
            const bool is_known = number != 0 && number <= last_transaction_;
            Check& check = !is_known ? stray_ : has(packet, "\"rejected\"") ? rejected_ : once_;
            return check.fail(fmt::format("another reply of transaction {}", number));
        }
        const Task& task = found->second;
        if (packet.text != task.reply) contents_.fail(packet.text + " instead of " + task.reply);
        if (task.cut == Cut::kNone) latencies_.add(packet.time - task.delivered - task.nap);
        if (shared().ran[number] != 1) fail(*found, "a reply without a run");
        if (shared().lost[number] != 0) fail(*found, "a lost and another reply");
        ++answered_;
        remove(found);
    }

    Tasks::iterator remove(Tasks::iterator task) {
        in_flight_ -= task->second.cut == Cut::kNone;
        ran_ += shared().ran[task->first];
        return tasks_.erase(task);
    }

    // Whether what was cut off may stay as it is.
    bool may_stay(const Tasks::value_type& task) {
        return task.second.cut == Cut::kByReset ||
               (task.second.cut == Cut::kByService && shared().ran[task.first] == 0);
    }

    // Looks after the tasks whose replies will not come.
    void sweep_tasks(Clock::duration age) {
        for (auto task = tasks_.begin(); task != tasks_.end();) {
            const bool is_lost = shared().lost[task->first] != 0;
            const bool is_old = task->second.cut != Cut::kNone && may_stay(*task) &&
                                Clock::now() - task->second.when_cut >= age;
            if (is_lost && task->second.cut == Cut::kNone) fail(*task, "a lost reply");
            lost_ += is_lost;
            never_ran_ += !is_lost && is_old && shared().ran[task->first] == 0;
            unread_replies_ += !is_lost && is_old && shared().ran[task->first] != 0;
            task = is_lost || is_old ? remove(task) : std::next(task);
        }
    }

    void cut(Cut by) {
        for (auto& [transaction, task] : tasks_) {
            cut_off_ += task.cut == Cut::kNone;
            task.cut = std::max(task.cut, by);
            task.when_cut = Clock::now();
        }
        in_flight_ = 0;
    }

    // The connection has ended: what has not left for the service never will.
    void drop_undelivered() {
        for (auto task = tasks_.begin(); task != tasks_.end();) {
            const bool gone = task->second.delivered == Clock::time_point();
            cut_off_ -= gone && task->second.cut != Cut::kNone;
            task = gone ? remove(task) : std::next(task);
        }
        for (auto notice = notices_open_.begin(); notice != notices_open_.end();) {
            notice = notice->second ? std::next(notice) : notices_open_.erase(notice);
        }
    }

    // ---- The other accounts

    // A session that the service itself or a loss has ended was told of as often as it was started.
    void close_session(const Session& session, bool is_lost) {
        const std::uint32_t services = is_refused_session(session.id) ? 0 : session.services();
        const std::uint32_t starts = shared().starts[session.id];
        const std::uint32_t readies = shared().readies[session.id];
        const std::uint32_t ends = shared().ends[session.id];
        const bool is_complete = is_lost || (starts == services && readies == services);
        if (!is_complete || ends != starts || starts > services) {
            sessions_check_.fail(
                fmt::format("session {} of {} services: {} started, {} ready, {} "
                            "ended",
                            session.id, services, starts, readies, ends));
        }
        started_ += starts;
        readied_ += readies;
        ended_ += ends;
    }

    void check_notice(std::uint32_t told) {
        if ((told & ~kToldAll) != 0) notices_check_.fail("a service was told once more");
    }

    void sweep_notices(bool may_be_unread) {
        for (auto notice = notices_open_.begin(); notice != notices_open_.end();) {
            const bool is_complete = shared().notices[notice->first] == kToldAll;
            notices_complete_ += is_complete;
            notices_unread_ += !is_complete && may_be_unread;
            notice = is_complete || may_be_unread ? notices_open_.erase(notice) : std::next(notice);
        }
    }

    // Nothing can come any more.
    void close_accounts() {
        sweep_tasks(0s);
        sweep_notices(false);
        for (const auto& task : tasks_)
            fail(task, shared().ran[task.first] ? "no reply" : "no run");
        for (std::uint32_t i = 0; i < kSlots; ++i) check_slot(i);
        for (const Counter& told : shared().notices.counters) check_notice(told);
        if (ran_ != answered_ + lost_ + unread_replies_ || sent_ != ran_ + never_ran_) {
            once_.fail(fmt::format("{} sent, {} ran, {} answered", sent_, ran_, answered_));
        }
        for (const auto& [number, sent] : notices_open_) {
            notices_check_.fail(fmt::format("{} came to {:x}", number, +shared().notices[number]));
        }
        for (const Session& session : sessions_) {
            sessions_check_.fail(fmt::format("no end of session {}", session.id));
        }
        for (std::size_t i = 0; i < kQuestioners; ++i) {
            if (shared().markers[i] == markers_[i] || resynchronise_[i]) continue;
            markers_check_.fail(fmt::format("{} sent, {} came", +shared().markers[i], markers_[i]));
        }
        const auto note = [](Check& check, std::uint32_t wrong, const char* what) {
            for (; wrong > 0; --wrong) check.fail(what);
        };
        note(rejected_, shared().rejected_ran, "one ran");
        note(sessions_check_, shared().wrong_sessions, "told out of order, or left in the table");
        note(notices_check_, shared().wrong_notices, "wrong contents");
        note(queries_check_, shared().wrong_queries, "a wrong answer, or none without a stop");
    }

    void judge_usage() {
        const auto compare = [this](Check& check, std::size_t warm, std::size_t last) {
            if (!warm_) progress_.fail("the end of the warm-up");
            if (last > warm) check.fail(fmt::format("{} then, {} at last", warm, last));
        };
        const Usage warm = warm_.value_or(Usage());
        compare(threads_check_, warm.threads, last_.threads);
        compare(descriptors_check_, warm.descriptors, last_.descriptors);
        compare(memory_check_, warm.memory_kib * 105 / 100, last_.memory_kib);
        if (*VEXON_SANITIZERS != '\0') {
            memory_check_.tolerance = "a sanitizer keeps what was released, and notes of accesses";
        } else if (duration_ < kMemoryDecides) {
            memory_check_.tolerance = "the run was too short for the memory to settle";
        }
    }

    // ---- Rounds of chance: the Manager does what it likes, and the service takes chances as well

    void take_chances() {
        Process service(std::to_string(seed_));
        service_ = &service;
        SimulatedManager manager(manager::kDefaultPath);
        // Used by the observer only: the ids given, by connection, and the latest one. A connection
        // that the library has opened again by itself has none, and may carry the latest.
        std::map<int, std::uint64_t> given;
        std::uint64_t latest = 0;
        std::atomic<std::uint32_t> opcode{0x1000};
        manager.set_observer([&](const manager::Packet& packet) {
            if (packet.direction == manager::Direction::ToClient) {
                if (!has(packet, R"("INIT")") || has(packet, ":-1")) return;
                latest = given[packet.client] = number_after(packet.text, R"("service_id":)");
            } else if (has(packet, R"("Service_Id":)")) {
                const std::uint64_t id = number_after(packet.text, R"("Service_Id":)");
                const std::uint64_t own = given[packet.client];
                if (id != (own == 0 ? latest : own)) {
                    const std::lock_guard lock(mutex_);
                    chance_.fail(fmt::format("{} to the connection of {}", packet.text, own));
                }
                if (has(packet, R"("DINT")")) latest = 0;
                if (has(packet, R"("AUTH")")) opcode = opcode_in(packet.text);
            }
        });
        std::int64_t last_service = 0;  // an id is given once only
        manager.start(last_service);
        const auto end = Clock::now() + Milliseconds(duration_) / 5;
        Clock::time_point next_closing;
        while (!service.has_ended()) {
            const auto what = random_() % 12;
            const bool yes = random_() % 2 == 0;
            const auto step = static_cast<manager::Step>(random_() % manager::kStepCount);
            if (what == 0) manager.refuse(step);
            if (what == 1) manager.set_delay(step, Milliseconds(random_() % 50));
            if (what == 2) manager.set_drop(step, yes);
            if (what == 3) manager.set_twice(step, yes);
            if (what == 4) manager.set_reading(random_() % 8 != 0);
            if (what > 4) {
                manager.accept(step);
                manager.set_drop(step, false);
                manager.set_delay(step, 0ms);
            }
            if (what > 6) talk_at_random(manager, 1 + random_() % 4, opcode);
            if (is_due(next_closing, Milliseconds(random_() % 200))) {
                const auto ending = random_() % 2 == 0 ? Ending::Orderly : Ending::Abrupt;
                ++closings_;
                if (yes) manager.close_clients(ending);
                if (!yes) manager.stop(ending);
                std::this_thread::sleep_for(Milliseconds(random_() % 30));
                if (!yes) manager.start(last_service += 100'000);
                manager.set_reading(true);
            }
            std::this_thread::sleep_for(Milliseconds(random_() % 10));
            show_progress();
            if (Clock::now() > end) shared().order = 'f';
        }
        manager.stop();
        if (!service.complaint().empty()) chance_.fail(service.complaint());
        calls_ = shared().calls;
        lives_ = shared().lives;
    }

    static std::uint32_t opcode_in(const std::string& text) {
        return static_cast<std::uint32_t>(number_after(text, R"("Opcode":)"));
    }

    static void talk_at_random(SimulatedManager& manager, std::uint32_t session,
                               std::uint32_t opcode) {
        const std::vector<manager::Target> targets{{opcode, {1}}};
        for (const std::string& text :
             {manager::start_session_message(session, 1, targets),
              manager::ready_session_message(session, targets),
              manager::exec_task_message({session, opcode, 1, "any"}, session),
              manager::permission_change_message("any", true, {}),
              manager::end_session_message(session, 1, {})}) {
            manager.send_to_all(text);
        }
    }

    // ---- What is shown

    void show_progress() {
        if (!is_due(next_progress_, 10s)) return;
        fmt::print("{:4.0f} s: {} tasks answered, {} in flight, {} stops, {} KiB\n",
                   Seconds(Clock::now() - begin_).count(), answered_, in_flight_, cycles_,
                   service_->usage().memory_kib);
        std::fflush(stdout);
    }

    template <class... Values>
    static void row(const char* title, fmt::format_string<Values...> text, Values&&... values) {
        fmt::print("  {:<12}{}\n", title, fmt::format(text, std::forward<Values>(values)...));
    }

    void print_report() {
        const double loaded = Seconds(loaded_).count();
        const Usage warm = warm_.value_or(Usage());
        fmt::print("\n");
        row("Duration", "{:.1f} s, of which {:.1f} s under load",
            Seconds(Clock::now() - begin_).count(), loaded);
        row("Connections", "{}; the Manager stopped {} times after draining, {} times abruptly,",
            connections_, stops_[kManagerDrained], stops_[kManagerCut]);
        row("", "{} times with packets unread ({} resets), {} times for longer than 20 s;",
            stops_[kManagerReset], resets_, long_outages_);
        row("", "the service started over {} times after draining, {} times abruptly",
            stops_[kServiceDrained], stops_[kServiceCut]);
        row("Sessions", "of their services {} started, {} ready, {} ended", started_, readied_,
            ended_);
        row("Tasks", "{} sent, {} ran, {} answered; {} rejected, {} of them while decoding", sent_,
            ran_, answered_, rejected_total_, undecodable_);
        row("", "{} cut off: the replies of {} could not be sent, of {} not read; {} never read",
            cut_off_, lost_, unread_replies_, never_ran_);
        row("", "{:.0f} per second under load; latency p50 {:.3f} ms, p99 {:.3f} ms",
            static_cast<double>(answered_) / std::max(loaded, 0.001),
            latencies_.percentile(50).count(), latencies_.percentile(99).count());
        row("Queries", "{} asked, {} answered, {} without an answer", queries_total_,
            queries_answered_, queries_total_ - queries_answered_);
        row("Notices", "{} sent, {} came to all services, {} were never read", notices_sent_,
            notices_complete_, notices_unread_);
        row("Markers", "{} received", markers_total_);
        row("Memory", "{} KiB after the warm-up, {} KiB at last ({:+.1f} %), at most {} KiB",
            warm.memory_kib, last_.memory_kib,
            100.0 * static_cast<double>(last_.memory_kib) / static_cast<double>(warm.memory_kib) -
                100,
            most_kib_);
        row("Threads", "{} after the warm-up, {} at last", warm.threads, last_.threads);
        row("Descriptors", "{} after the warm-up, {} at last", warm.descriptors, last_.descriptors);
        row("Chance", "{} calls in {} lives, {} times closed; seed {}", calls_, lives_, closings_,
            seed_);
        fmt::print("\n");
        for (const Check* const check : checks_) {
            const bool decides = check->tolerance.empty();
            fmt::print("  {:<8} {}\n",
                       check->failures == 0 ? "ok"
                       : decides            ? "FAILED"
                                            : "(failed)",
                       check->title);
            if (check->failures > 0) {
                fmt::print("           {} times, first: {}\n", check->failures, check->example);
            }
            if (!decides) fmt::print("           does not decide: {}\n", check->tolerance);
        }
    }

    Shared& shared() const { return service_->shared; }

    template <class Counters>
    static std::array<std::uint32_t, 7> counts_of(const Counters& counters) {
        std::array<std::uint32_t, 7> counts;
        std::copy(counters.begin(), counters.end(), counts.begin());
        return counts;
    }

    static constexpr std::size_t kSlots = 1 << 16;  // of Shared::ran
    static constexpr std::uint32_t kToldAll = 0x111;

    const std::chrono::seconds duration_;
    const unsigned seed_;
    const Milliseconds load_ = Milliseconds(duration_) * 4 / 5;
    const Clock::time_point begin_ = Clock::now();
    Random random_{seed_};
    Process* service_ = nullptr;
    std::unique_ptr<SimulatedManager> plain_, dedicated_;

    std::mutex mutex_;
    std::condition_variable came_;
    std::deque<manager::Packet> packets_;         // guarded by mutex_
    std::pair<SimulatedManager*, int> latest_{};  // guarded by mutex_; who got ready last
    std::pair<SimulatedManager*, int> peer_{};    // to whom everything is sent
    std::atomic<std::size_t> disconnections_{0};

    Tasks tasks_;
    std::uint32_t last_transaction_ = 0;
    std::vector<Session> sessions_, left_sessions_;
    std::uint32_t last_session_ = 0;
    std::map<std::uint64_t, bool> notices_open_;  // whether it was delivered
    std::uint64_t last_notice_ = 0;
    std::array<std::uint64_t, kQuestioners> markers_{};
    std::array<bool, kQuestioners> resynchronise_{};
    Clock::time_point next_session_, next_notice_, next_rejected_, next_progress_;
    std::size_t crowd_ = 0;  // so many tasks are still to take their time together
    std::uint32_t ready_ = 1;

    std::size_t cycles_ = 0, leaves_ = 0, resets_ = 0, long_outages_ = 0, connections_ = 0;
    std::array<std::size_t, kStops> stops_{};
    std::size_t in_flight_ = 0, sent_ = 0, ran_ = 0, answered_ = 0, lost_ = 0, cut_off_ = 0;
    std::size_t never_ran_ = 0, unread_replies_ = 0, rejected_total_ = 0, undecodable_ = 0;
    std::size_t started_ = 0, readied_ = 0, ended_ = 0, notices_sent_ = 0, notices_complete_ = 0;
    std::size_t notices_unread_ = 0, queries_total_ = 0, queries_answered_ = 0, markers_total_ = 0;
    std::size_t calls_ = 0, lives_ = 0, closings_ = 0, most_kib_ = 0;
    std::optional<Usage> warm_;
    Usage last_;
    manager::Latencies latencies_;
    Clock::duration loaded_{};

    Check once_{"each task that was not cut off ran once and was answered once"};
    Check cut_once_{"each task that was cut off ran and was answered at most once"};
    Check stray_{"no reply without a task"};
    Check contents_{"each reply holds its own task's contents"};
    Check rejected_{"tasks to be rejected neither ran nor were answered"};
    Check sessions_check_{"each session started, got ready and ended once, and left the table"};
    Check losses_{"the service was told of each loss and return of the Manager"};
    Check queries_check_{"each query got its own answer, or none around a stop"};
    Check notices_check_{"each notice came once to each service, with its contents"};
    Check markers_check_{"each marker that was sent came"};
    Check threads_check_{"no more threads than after the warm-up"};
    Check descriptors_check_{"no more descriptors than after the warm-up"};
    Check memory_check_{"memory at most 5 % above that after the warm-up"};
    Check service_check_{"the service ended with status 0 and wrote nothing to standard error"};
    Check chance_{"by chance no call hung, and nothing of one life got into another"};
    Check progress_{"nothing was waited for in vain"};
    const std::vector<Check*> checks_{
        &once_,          &cut_once_,       &stray_,         &contents_,
        &rejected_,      &sessions_check_, &losses_,        &queries_check_,
        &notices_check_, &markers_check_,  &threads_check_, &descriptors_check_,
        &memory_check_,  &service_check_,  &chance_,        &progress_};
};

void fail_hanging(int) {
    constexpr std::string_view kText = "\nvexon-soak: FAILED: it hangs\n";
    static_cast<void>(::write(STDERR_FILENO, kText.data(), kText.size()) != 0);
    ::_exit(3);
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
    const int seconds = argc < 2 ? 60 : std::atoi(argv[1]);
    const int seed =
        argc < 3 ? static_cast<int>(std::random_device()() % 1'000'000 + 1) : std::atoi(argv[2]);
    if (argc > 3 || seconds < 1 || seconds > 86'400 || seed < 1) {
        std::fputs(
            "Usage: vexon-soak [SECONDS [SEED]]\n"
            "Put the library under load, 60 seconds if nothing else is said, 86400 at most.\n"
            "SEED repeats what was done by chance, as far as threads do.\n\n"
            "Exit status: 0 all checks hold, 1 some do not, 2 wrong usage, 3 the test itself "
            "hangs\n",
            stderr);
        return 2;
    }
    enter_private_dev(VEXON_PRIVATE_DEV, argv);
    ::signal(SIGALRM, soak::fail_hanging);
    ::alarm(static_cast<unsigned>(seconds) + 180);  // all waits have shorter limits of their own
    try {
        const bool passed =
            soak::Soak(std::chrono::seconds(seconds), static_cast<unsigned>(seed)).run();
        fmt::print("\n{}\n", passed ? "Passed" : "FAILED");
        return passed ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "vexon-soak: {}\n", error.what());
        return 1;
    }
}
