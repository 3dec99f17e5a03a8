// Puts the library under load for a while: a Manager in this process, a service in another, both
// in a /dev of their own. Then come rounds of chance, and a table of figures and checks.

#include <fmt/ranges.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <numeric>

#include "contract.h"
#include "manager/calls/latencies.h"
#include "manager/simulation/Manager.h"
#include "private_dev/enter_private_dev.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using Seconds = std::chrono::duration<double>;
using manager::Ending;
using manager::SimulatedManager;

constexpr std::size_t kSessions = 8;
constexpr Milliseconds kLongOutage = 22s;  // the library tries to connect again for 20 s
constexpr auto kRunWithLongOutage = 240s;
constexpr auto kMemoryDecides = 30s;  // a shorter run has not seen enough of it
constexpr auto kLimit = 45s;          // far beyond what anything takes that does not hang
constexpr auto kOutlived = 1s;        // what is older than this has run or never will
// The library does not release what it rejects while it decodes; that is so few tasks that the leak
// stays far below what the check of the memory tolerates. None where leaks are looked for: to
// overlook these would be to overlook leaks of all tasks.
constexpr bool kLooksForLeaks =
    std::string_view(VEXON_SANITIZERS).find("address") != std::string_view::npos;
constexpr std::size_t kMostUndecodable = kLooksForLeaks ? 0 : 100;

const std::vector<manager::Target> kNoTargets;

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

// A task or a notice until it is settled.
struct Item {
    std::string reply = {};  // of a task, as it is to be
    Clock::time_point delivered = {};
    Cut cut = Cut::kNone;
    Clock::time_point when_cut = {};
};

using Items = std::map<std::uint64_t, Item>;

// The account of all tasks or of all notices. Each is to be settled once.
struct Account {
    Check& once;
    Check& cut_once;  // for those that were cut off
    Tallies Shared::*tallies;
    std::size_t events;  // that are to happen to each in the service
    std::size_t replies;
    Items items = {};
    std::uint64_t last = 0;
    std::size_t sent = 0, came = 0, answered = 0, not_sent = 0, not_read = 0, unread_replies = 0;
    std::size_t cut_off = 0;
};

struct Usage {
    std::size_t memory_kib = 0, threads = 0, descriptors = 0;
};

// The service process, watched from outside; it ends with this one. To be started while there is
// one thread.
struct Process {
    explicit Process(const std::string& argument) {
        if (::ftruncate(memory, sizeof(Shared)) != 0) std::perror("ftruncate");
        pid = ::fork();
        if (pid != 0) return;
        constexpr const char* kProgram = VEXON_SOAK_SERVICE;
        ::dup2(::fileno(errors), STDERR_FILENO);
        ::dup2(memory, 3);
        ::execl(kProgram, kProgram, argument.empty() ? nullptr : argument.c_str(), nullptr);
        ::_exit(127);
    }
    bool has_ended() { return ended = ended || ::waitpid(pid, &status, WNOHANG) == pid; }
    // What it should not have written or ended with.
    std::string complaint() const {
        std::string text(65536, '\0');
        std::rewind(errors);
        text.resize(std::fread(text.data(), 1, text.size(), errors));
        return status == 0 ? text : fmt::format("status {}\n{}", status, text);
    }
    Usage usage() const {
        const std::string directory = fmt::format("/proc/{}/", pid);
        const auto number_in = [&](const char* file, std::string_view key) {
            std::ifstream stream(directory + file);
            return number_after({std::istreambuf_iterator<char>(stream), {}}, key);
        };
        std::error_code error;
        const std::filesystem::directory_iterator files(directory + "fd", error);
        return {number_in("smaps_rollup", "\nRss:"), number_in("status", "\nThreads:"),
                static_cast<std::size_t>(std::distance(begin(files), end(files)))};
    }

    std::FILE* const errors = std::tmpfile();
    const int memory = ::memfd_create("soak", 0);
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    Shared& shared = *static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0));
};

// A session is started, takes tasks until its end, is ended and ended again, which is to be
// refused, since it has left the table.
struct Session {
    enum class Stage { kStarting, kActive, kEnding, kEndingAgain };
    std::uint32_t id;
    Clock::time_point end;
    std::vector<manager::Target> targets = {};
    Stage stage = Stage::kStarting;

    // What the library says to the stage.
    std::string response() const {
        if (stage != Stage::kStarting) return response("end", stage == Stage::kEnding, "");
        std::vector<std::string> opcodes;
        for (const auto& [opcode, ids] : targets) {
            const auto list = fmt::format(R"({{"id":{}}})", fmt::join(ids, R"(},{"id":)"));
            opcodes.push_back(
                fmt::format(R"({{"id":"0x{:08x}","subsystems":[{}]}})", opcode, list));
        }
        if (is_refused_session(id)) opcodes.clear();
        return response("start", !opcodes.empty(),
                        fmt::format(R"(,"opcodes":[{}])", fmt::join(opcodes, ",")));
    }
    std::string response(const char* what, bool success, const std::string& more) const {
        return fmt::format(R"({{"req_type":"{}_session","session_id":{},"Result":"{}"{}}})", what,
                           id, success ? "Success" : "Failed", more);
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

    // Returns whether all checks hold. Prints the closing table.
    bool run() {
        try {
            run_load();
            take_chances();
        } catch (const InVain&) {
            close_accounts();
        }
        print_report();
        return std::all_of(checks_.begin(), checks_.end(), [](const Check& check) {
            return check.failures == 0 || !check.tolerance.empty();
        });
    }

  private:
    // ---- The course. Each step throws InVain when it waits in vain.

    void run_load() {
        start_managers();
        await_ready();
        const Milliseconds shortest = 400ms;
        const auto cycle = std::clamp<Milliseconds>(load_ / 20, shortest, 10s);
        const auto end = begin_ + load_;
        while (true) {
            run_cycle(std::min(Clock::now() + cycle, std::max(end, Clock::now() + shortest)));
            if (++cycles_ > kStops + 1 && Clock::now() >= end) break;
            stop(static_cast<Stop>(cycles_ % kStops));
        }
        drain();
        shared().order = 'f';
        await("the end of the service", [this] { return service_.has_ended(); });
        stop_managers(Ending::Orderly);
        if (!service_.complaint().empty()) service_check_.fail(service_.complaint());
        close_accounts();
        judge_usage();
    }

    void run_cycle(Clock::time_point end) {
        const Clock::time_point begin = Clock::now();
        for (auto now = begin; now < end; now = Clock::now()) {
            if (sessions_.size() < kSessions && is_due(next_session_, 20ms)) start_session();
            end_sessions(now);
            if (is_due(next_notice_, 3ms)) send_notice();
            if (is_due(next_rejected_, 10ms)) send_rejected();
            send_tasks();
            take_packets(1ms);
            sweep(kOutlived);
        }
        loaded_ += Clock::now() - begin;
    }

    // Ends all sessions and waits for all that is under way.
    void drain() {
        await("the end of all that was under way", [this] {
            end_sessions(Clock::time_point::max());
            sweep(kOutlived);
            return sessions_.empty() && tasks_.items.empty() && notices_.items.empty();
        });
        observe_usage();
    }

    // Nothing is under way, so that the figures of different times can be compared. A thread that
    // has sent its reply may yet have to end, and so may a receive thread.
    void observe_usage() {
        const auto limit = Clock::now() + 5s;
        for (int still = 0; still < 20 && Clock::now() < limit; ++still) {
            const Usage before = service_.usage();
            take_packets(10ms);
            const Usage now = service_.usage();
            if (now.threads != before.threads || now.descriptors != before.descriptors) still = 0;
        }
        shared().order = 't';
        await("the service to give back memory", [this] { return shared().order == 0; });
        last_ = service_.usage();
        most_kib_ = std::max(most_kib_, last_.memory_kib);
        const bool is_warm = cycles_ >= kStops && Clock::now() - begin_ >= load_ / 4;
        if (is_warm && !warm_) warm_ = last_;
    }

    void stop(Stop kind) {
        ++stops_.at(kind);
        if (kind == kManagerDrained || kind == kServiceDrained) drain();
        ++ready_;
        ++shared().disturbances;
        const bool by_service = kind == kServiceDrained || kind == kServiceCut;
        if (by_service) {
            start_over(kind == kServiceCut);
        } else {
            lose_manager(kind);
        }
        ++shared().disturbances;
        left_sessions_.insert(left_sessions_.end(), sessions_.begin(), sessions_.end());
        sessions_.clear();
        if (by_service) return;
        for (const Session& session : std::exchange(left_sessions_, {})) settle(session, true);
    }

    void lose_manager(Stop kind) {
        const bool is_reset = kind == kManagerReset;
        const bool is_long = kind == kManagerCut && duration_ >= kRunWithLongOutage &&
                             long_outages_ == 0 && Clock::now() - begin_ > load_ / 2;
        long_outages_ += is_long;
        Shared& counts = shared();
        for (Counter& ends : counts.receive_ends) ends = 0;
        counts.losses = counts.returns = 0;
        if (is_reset) leave_replies_unread();
        cut(is_reset ? Cut::kByReset : Cut::kByManager);
        stop_managers(is_reset ? Ending::Abrupt : Ending::Orderly);
        drop_undelivered();
        std::this_thread::sleep_for(is_long ? kLongOutage : Milliseconds(10 + random_() % 150));
        start_managers();
        await_ready();

        const bool saw_reset = is_reset && counts.receive_ends[VEXA_RECEIVE_END_RESET] != 0;
        resets_ += saw_reset;
        const auto told =
            fmt::format("ends by reason {}, {} returns, a loss: {}",
                        fmt::join(counts.receive_ends, " "), counts.returns, counts.losses > 0);
        const auto expected =
            fmt::format("ends by reason 0 {:d} 0 0 {:d} {:d} 0, {:d} returns, a loss: true",
                        saw_reset, !saw_reset && !is_long, is_long, !saw_reset && !is_long);
        if (told != expected) losses_.fail(told + " instead of " + expected);
    }

    // From here on the Manager does not read, and replies are on their way.
    void leave_replies_unread() {
        managers_[in_use_]->set_reading(false);
        resynchronise_.fill(true);
        for (const auto end = Clock::now() + 50ms; Clock::now() < end;) {
            send_tasks();
            take_packets(1ms);
        }
    }

    // Has the service take leave and come back, at the other socket.
    void start_over(bool abruptly) {
        if (abruptly) cut(Cut::kByService);
        shared().order = in_use_ == 0 ? 'd' : 'p';
        await_ready([&] {
            if (!abruptly || !is_connected_) return;
            send_tasks();
            cut(Cut::kByService);
        });
        in_use_ = 1 - in_use_;
        drop_undelivered();
    }

    void await_ready(const std::function<void()>& meanwhile = [] {}) {
        await("the service to get ready", [&] {
            meanwhile();
            return shared().ready >= ready_;
        });
        is_connected_ = true;
    }

    template <class Done>
    void await(const char* what, Done done) {
        for (const auto deadline = Clock::now() + kLimit; !done(); take_packets(1ms)) {
            const bool has_ended = shared().order != 'f' && service_.has_ended();
            if (!has_ended && Clock::now() < deadline) continue;
            if (has_ended) service_check_.fail("it ended before its time");
            if (!has_ended) progress_.fail(what);
            if (!service_.complaint().empty()) service_check_.fail(service_.complaint());
            throw InVain();
        }
        take_packets(0ms);
    }

    // ---- The Managers, at the plain and at the dedicated socket

    // A new start has new objects: those of before have logged each packet.
    void start_managers() {
        managers_ = {open(manager::kDefaultPath), open(manager::kDedicatedPath)};
    }

    // What clients have sent until an orderly end is taken.
    void stop_managers(Ending ending) {
        for (auto& own : managers_) own->stop(ending);
        take_packets(0ms);
    }

    std::unique_ptr<SimulatedManager> open(const char* path) {
        auto opened = std::make_unique<SimulatedManager>(path);
        for (Name name{0}; name.number < Name::kCount; ++name.number) {
            if (name.is_granted()) opened->grant(name.text());
            opened->set_info(name.text(), name.info());
        }
        opened->set_observer([this](const manager::Packet& packet) {
            const std::lock_guard lock(mutex_);
            packets_.push_back(packet);
            came_.notify_one();
        });
        opened->start();
        return opened;
    }

    static bool has(const manager::Packet& packet, std::string_view part) {
        return packet.text.find(part) != std::string::npos;
    }

    // What is meant for a service that has gone is dropped.
    void send(const std::string& text) try {
        managers_[in_use_]->send_for_opcode(kServices[0].opcode, text);
    } catch (const manager::ManagerError&) {
        is_connected_ = false;
    }

    // ---- The load

    static bool is_due(Clock::time_point& next, Milliseconds interval) {
        if (Clock::now() < next) return false;
        next = Clock::now() + interval;
        return true;
    }

    const Session* any_session(Session::Stage stage) {
        std::vector<const Session*> all;
        for (const Session& session : sessions_) {
            if (session.stage == stage) all.push_back(&session);
        }
        return all.empty() ? nullptr : all[random_() % all.size()];
    }

    void send_tasks() {
        auto in_flight = std::count_if(tasks_.items.begin(), tasks_.items.end(),
                                       [](const auto& e) { return e.second.cut == Cut::kNone; });
        for (; is_connected_ && in_flight < kInFlight; ++in_flight) {
            const Session* const session = any_session(Session::Stage::kActive);
            if (session == nullptr) return;
            const manager::Target& target = session->targets[random_() % session->targets.size()];
            send_task(session->id, target.opcode,
                      target.subsystems[random_() % target.subsystems.size()]);
        }
    }

    void send_task(std::uint32_t session, std::uint32_t opcode, std::uint32_t subsystem) {
        const std::uint64_t number = new_number(tasks_);
        const std::string function = fmt::format("task_{}", number);
        const Arguments arguments = arguments_of(number, function);
        tasks_.items[number].reply = fmt::format(
            R"({{"opcode":"{}","name":"{}","subsys_id":"{}","req_type":"exec_task","return":{},)"
            R"("func":{{"digest":"{}"}},"transac_id":{},"status": 0,"session_id":{}}})",
            opcode, function, subsystem, arguments.count, arguments.digest, number, session);
        send(manager::exec_task_message({session, opcode, subsystem, function, arguments.json},
                                        static_cast<std::int64_t>(number)));
    }

    void send_rejected(const manager::Task& task) {
        ++rejected_total_;
        send(manager::exec_task_message(task, static_cast<std::int64_t>(new_number(tasks_))));
    }

    // Each is to be rejected for one reason alone.
    void send_rejected() {
        const auto reason = random_() % 4;
        const Session* const session =
            any_session(reason == 0 ? Session::Stage::kStarting : Session::Stage::kActive);
        if (session == nullptr) return;
        manager::Task task{session->id, session->targets[0].opcode, 1, "rejected"};
        if (reason == 1) task.session = 0;
        if (reason == 2) task.subsystem = 99;
        if (reason == 3 && undecodable_ < kMostUndecodable) {
            task.args = kUndecodable[undecodable_++ % std::size(kUndecodable)];
        } else if (reason == 3) {
            task.opcode = 0x77;
        }
        send_rejected(task);
    }

    void send_notice() {
        const std::uint64_t number = new_number(notices_);
        const Notice notice = notice_of(number);
        const manager::Affected affected{notice.session, notice.package};
        notices_.items[number] = {};
        send(notice.kind == 0
                 ? manager::permission_change_message(notice.name, notice.granted, affected)
             : notice.kind == 1
                 ? manager::state_change_message(notice.name, notice.value, affected)
                 : manager::setting_change_message(notice.name, notice.value, affected));
    }

    void start_session() {
        Session session{++last_session_, Clock::now() + Milliseconds(50 + random_() % 500)};
        for (std::size_t i = 0; i < kServices.size(); ++i) {
            if (i != session.id % kServices.size() && random_() % 2 == 0) continue;
            manager::Target& target = session.targets.emplace_back();
            target.opcode = kServices[i].opcode;
            target.subsystems.resize(1 + random_() % kServices[i].subsystems);
            std::iota(target.subsystems.begin(), target.subsystems.end(), 1U);
        }
        for (auto& count : shared().sessions[session.id]) count = 0;
        send(manager::start_session_message(session.id, 1, session.targets));
        sessions_.push_back(std::move(session));
    }

    void end_sessions(Clock::time_point now) {
        for (Session& session : sessions_) {
            if (session.stage != Session::Stage::kActive || now < session.end) continue;
            session.stage = Session::Stage::kEnding;
            // By the names of its services, or else the whole session.
            const bool by_name = session.id % 2 == 0;
            send(manager::end_session_message(session.id, 1,
                                              by_name ? session.targets : kNoTargets));
        }
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
            if (has(packet, kNoticePrefix)) note_delivery(notices_, kNoticePrefix, packet);
            if (has(packet, R"("exec_task")")) note_delivery(tasks_, R"("transac_id":)", packet);
        } else if (packet.text.rfind(kMarkerPrefix, 0) == 0) {
            take_marker(number_after(packet.text, kMarkerPrefix));
        } else if (has(packet, "_session\"")) {
            take_response(packet.text);
        } else if (has(packet, R"("req_type":"exec_task")")) {
            take_reply(packet);
        }
    }

    static void note_delivery(Account& account, std::string_view key,
                              const manager::Packet& packet) {
        const auto item = account.items.find(number_after(packet.text, key));
        if (item == account.items.end()) return;  // it is to be rejected
        item->second.delivered = packet.time;
        ++account.sent;
    }

    void take_reply(const manager::Packet& packet) {
        const auto number = number_after(packet.text, R"("transac_id":)");
        const auto found = tasks_.items.find(number);
        if (found == tasks_.items.end()) {
            const bool is_known = number != 0 && number <= tasks_.last;
            Check& check = !is_known ? stray_ : has(packet, "\"rejected\"") ? rejected_ : once_;
            return check.fail(fmt::format("another reply of transaction {}", number));
        }
        const Item& task = found->second;
        if (packet.text != task.reply) contents_.fail(packet.text + " instead of " + task.reply);
        if (task.cut == Cut::kNone) {
            latencies_.add(packet.time - task.delivered - Milliseconds(nap_of(number)));
        }
        settle(tasks_, found, true);
    }

    void take_response(const std::string& response) {
        const std::uint64_t id = number_after(response, R"("session_id":)");
        const auto session = std::find_if(sessions_.begin(), sessions_.end(),
                                          [&](const Session& s) { return s.id == id; });
        if (session == sessions_.end()) return sessions_check_.fail("unexpected " + response);
        const std::string expected = session->response();
        if (response != expected) sessions_check_.fail(response + " instead of " + expected);
        if (advance(*session)) return;
        settle(*session, false);
        sessions_.erase(session);
    }

    // Takes the next step with a session. Returns whether it goes on.
    bool advance(Session& session) {
        using Stage = Session::Stage;
        if (session.stage == Stage::kStarting && !is_refused_session(session.id)) {
            session.stage = Stage::kActive;
            send(manager::ready_session_message(session.id, session.targets));
            return true;
        }
        if (session.stage != Stage::kEnding) return false;
        // The library shall know nothing of the session any more.
        send_rejected({session.id, session.targets[0].opcode, kEndedProbeSubsystem, "rejected"});
        session.stage = Stage::kEndingAgain;
        send(manager::end_session_message(session.id, 1, kNoTargets));
        return true;
    }

    // Each questioner numbers those that it has sent. A reset may swallow some.
    void take_marker(std::uint64_t marker) {
        const std::size_t questioner = marker % kQuestioners;
        const std::uint64_t number = marker / kQuestioners;
        const std::uint64_t next = std::exchange(markers_[questioner], number) + 1;
        const bool may_skip = std::exchange(resynchronise_[questioner], false);
        if (number < next || (number > next && !may_skip)) {
            markers_check_.fail(fmt::format("{} instead of {}", number, next));
        }
        ++markers_total_;
    }

    // ---- The accounts

    Tally& tally_of(const Account& account, std::uint64_t number) const {
        return (shared().*account.tallies)[number];
    }

    std::uint64_t new_number(Account& account) {
        Tally& tally = tally_of(account, ++account.last);
        judge_settled(account, tally);
        for (auto& count : tally) count = 0;
        return account.last;
    }

    // What happened to one of long ago, whose place is to be used again.
    static void judge_settled(const Account& account, const Tally& tally) {
        if (std::all_of(tally.begin(), tally.end(), [](unsigned count) { return count <= 1; }))
            return;
        account.once.fail(fmt::format("it happened more than once: {}", fmt::join(tally, " ")));
    }

    bool has_come(const Account& account, std::uint64_t number) const {
        const Tally& tally = tally_of(account, number);
        return std::all_of(tally.begin(), tally.begin() + account.events,
                           [](unsigned count) { return count == 1; });
    }

    // Whether what was cut off may have been lost on its way.
    bool may_be_lost(const Account& account, const Items::value_type& item) const {
        const Cut cut = item.second.cut;
        return cut == Cut::kByReset || (cut == Cut::kByService && !has_come(account, item.first));
    }

    // Each has to come and to be answered once. Only of what was cut off may the reply not be sent,
    // or nothing come at all.
    void settle(Account& account, Items::iterator item, bool is_answered) {
        const std::uint64_t number = item->first;
        const bool came = has_come(account, number);
        const bool is_cut = item->second.cut != Cut::kNone;
        const std::size_t not_sent = tally_of(account, number)[kNotSent];
        const std::size_t replies = not_sent + (is_answered ? 1 : 0);
        const bool is_whole = came && replies == account.replies && (is_cut || not_sent == 0);
        if (!is_whole && !(replies == 0 && may_be_lost(account, *item))) {
            Check& check = is_cut ? account.cut_once : account.once;
            check.fail(fmt::format("{} happened {} times, answered {} times, not sent {} times",
                                   number, fmt::join(tally_of(account, number), " "), is_answered,
                                   not_sent));
        }
        account.came += came;
        account.answered += is_answered;
        account.not_sent += not_sent;
        account.not_read += !came;
        account.unread_replies += came && replies < account.replies;
        account.cut_off += is_cut;
        account.items.erase(item);
    }

    // The visitor may take the item from its account.
    template <class Visitor>
    void visit_items(Visitor visit) {
        for (Account* const account : {&tasks_, &notices_}) {
            for (auto next = account->items.begin(); next != account->items.end();) {
                const auto item = next++;
                visit(*account, item);
            }
        }
    }

    // Settles what was told or lost in the service, and what was cut off so long ago.
    void sweep(Clock::duration age) {
        visit_items([&](Account& account, Items::iterator item) {
            const bool is_over = has_come(account, item->first) &&
                                 tally_of(account, item->first)[kNotSent] == account.replies;
            const bool is_old =
                may_be_lost(account, *item) && Clock::now() - item->second.when_cut >= age;
            if (is_over || is_old) settle(account, item, false);
        });
    }

    void cut(Cut by) {
        visit_items([&](Account&, Items::iterator item) {
            item->second.cut = std::max(item->second.cut, by);
            item->second.when_cut = Clock::now();
        });
    }

    // The connection has ended: what has not left for the service never will.
    void drop_undelivered() {
        visit_items([](Account& account, Items::iterator item) {
            if (item->second.delivered == Clock::time_point()) account.items.erase(item);
        });
    }

    // A session that the service itself or a loss has ended was told of as often as it was started.
    void settle(const Session& session, bool is_lost) {
        std::size_t services = 0;
        for (const auto& target : session.targets) services += target.subsystems.size();
        if (is_refused_session(session.id)) services = 0;
        const Tally& tally = shared().sessions[session.id];
        const bool is_complete =
            is_lost || (tally[kStarted] == services && tally[kReady] == services);
        if (!is_complete || tally[kEnded] != tally[kStarted] || tally[kStarted] > services) {
            sessions_check_.fail(
                fmt::format("session {} of {} services: {} started, {} ready, {} ended", session.id,
                            services, tally[kStarted], tally[kReady], tally[kEnded]));
        }
        for (const Event event : {kStarted, kReady, kEnded}) session_totals_[event] += tally[event];
    }

    // Nothing can come any more.
    void close_accounts() {
        sweep(0s);
        visit_items([this](Account& account, auto item) { settle(account, item, false); });
        for (const Account* const account : {&tasks_, &notices_}) {
            for (const Tally& tally : (shared().*account->tallies).slots)
                judge_settled(*account, tally);
        }
        for (const Session& session : sessions_) {
            sessions_check_.fail(fmt::format("no end of session {}", session.id));
        }
        for (std::size_t i = 0; i < kQuestioners; ++i) {
            if (shared().markers[i] == markers_[i] || resynchronise_[i]) continue;
            markers_check_.fail(fmt::format("{} sent, {} came", shared().markers[i], markers_[i]));
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
        if (!warm_) return progress_.fail("the end of the warm-up");
        const auto compare = [](Check& check, std::size_t warm, std::size_t last) {
            if (last > warm) check.fail(fmt::format("{} then, {} at last", warm, last));
        };
        compare(threads_check_, warm_->threads, last_.threads);
        compare(descriptors_check_, warm_->descriptors, last_.descriptors);
        compare(memory_check_, warm_->memory_kib * 105 / 100, last_.memory_kib);
        if (*VEXON_SANITIZERS != '\0') {
            memory_check_.tolerance = "a sanitizer keeps what was released, and notes of accesses";
        } else if (duration_ < kMemoryDecides) {
            memory_check_.tolerance = "the run was too short for the memory to settle";
        }
    }

    // ---- Rounds of chance: the Manager does what it likes, and the service takes chances as well

    void take_chances() {
        managers_ = {};
        Process service(std::to_string(seed_));
        SimulatedManager manager(manager::kDefaultPath);
        // Used by the observers only: the ids given, by connection, and the latest one. A
        // connection that the library has opened again by itself has none, and carries that of the
        // one before.
        std::map<int, std::uint64_t> given;
        std::map<int, std::uint64_t> inherited;
        std::uint64_t latest = 0;
        std::atomic<std::uint32_t> opcode{0x1000};
        manager.set_observer(
            [&](const manager::Packet& packet) {
                if (packet.direction == manager::Direction::ToClient) {
                    if (!has(packet, R"("INIT")") || has(packet, ":-1")) return;
                    latest = given[packet.client] = number_after(packet.text, R"("service_id":)");
                } else if (has(packet, R"("Service_Id":)")) {
                    const std::uint64_t id = number_after(packet.text, R"("Service_Id":)");
                    const std::uint64_t own = given[packet.client];
                    if (id != (own == 0 ? inherited[packet.client] : own)) {
                        const std::lock_guard lock(mutex_);
                        chance_.fail(fmt::format("{} to the connection of {}", packet.text, own));
                    }
                    if (has(packet, R"("DINT")") && id == latest) latest = 0;
                    if (!has(packet, R"("AUTH")")) return;
                    opcode = static_cast<std::uint32_t>(number_after(packet.text, R"("Opcode":)"));
                }
            },
            [&](const manager::ConnectionChange& change) {
                inherited.emplace(change.client, latest);
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
            if (what == 2 || what > 4) manager.set_drop(step, what == 2 && yes);
            if (what == 3) manager.set_twice(step, yes);
            if (what == 4) manager.set_reading(random_() % 8 != 0);
            if (what > 4) manager.accept(step);
            if (what > 4) manager.set_delay(step, 0ms);
            if (what > 6) talk(manager, 1 + static_cast<std::int64_t>(random_() % 4), opcode);
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
            if (Clock::now() > end) service.shared.order = 'f';
            if (Clock::now() < end + kLimit) continue;
            return chance_.fail("a call does not return\n" + service.complaint());
        }
        manager.stop();
        if (!service.complaint().empty()) chance_.fail(service.complaint());
        calls_ = service.shared.calls;
        lives_ = service.shared.lives;
    }

    static void talk(SimulatedManager& manager, std::int64_t session, std::uint32_t opcode) {
        const std::vector<manager::Target> targets{{opcode, {1}}};
        manager.send_to_all(manager::start_session_message(session, 1, targets));
        manager.send_to_all(manager::ready_session_message(session, targets));
        manager.send_to_all(manager::exec_task_message({session, opcode, 1, "any"}, session));
        manager.send_to_all(manager::permission_change_message("any", true, {}));
        manager.send_to_all(manager::end_session_message(session, 1, kNoTargets));
    }

    // ---- What is shown

    void print_report() const {
        const double loaded = std::max(Seconds(loaded_).count(), 0.001);
        const Usage warm = warm_.value_or(Usage());
        const double growth = static_cast<double>(last_.memory_kib) /
                                  std::max(static_cast<double>(warm.memory_kib), 1.0) -
                              1;
        const std::uint32_t asked = shared().queries, answered = shared().answered_queries;
        fmt::print(R"(
  Duration    {:.1f} s, of which {:.1f} s under load
  Connections {}; the Manager stopped {} times after draining, {} times abruptly,
              {} times with packets unread ({} resets), {} times for longer than 20 s;
              the service started over {} times after draining, {} times abruptly
  Sessions    of their services {} started, {} ready, {} ended
  Tasks       {} sent, {} ran, {} answered; {} rejected, {} of them while decoding
              {} cut off: the replies of {} could not be sent, of {} not read; {} never read
              {:.0f} per second under load; latency p50 {:.3f} ms, p99 {:.3f} ms
  Queries     {} asked, {} answered, {} without an answer
  Notices     {} sent, {} came to all services, {} were never read
  Markers     {} received
  Memory      {} KiB after the warm-up, {} KiB at last ({:+.1f} %), at most {} KiB
  Threads     {} after the warm-up, {} at last
  Descriptors {} after the warm-up, {} at last
  Chance      {} calls in {} lives, {} times closed; seed {}

)",
                   Seconds(Clock::now() - begin_).count(), loaded, shared().ready,
                   stops_[kManagerDrained], stops_[kManagerCut], stops_[kManagerReset], resets_,
                   long_outages_, stops_[kServiceDrained], stops_[kServiceCut],
                   session_totals_[kStarted], session_totals_[kReady], session_totals_[kEnded],
                   tasks_.sent, tasks_.came, tasks_.answered, rejected_total_, undecodable_,
                   tasks_.cut_off, tasks_.not_sent, tasks_.unread_replies, tasks_.not_read,
                   static_cast<double>(tasks_.answered) / loaded, latencies_.percentile(50).count(),
                   latencies_.percentile(99).count(), asked, answered, asked - answered,
                   notices_.sent, notices_.came, notices_.not_read, markers_total_, warm.memory_kib,
                   last_.memory_kib, 100 * growth, most_kib_, warm.threads, last_.threads,
                   warm.descriptors, last_.descriptors, calls_, lives_, closings_, seed_);
        for (const Check& check : checks_) {
            const bool decides = check.tolerance.empty();
            const char* const failed = decides ? "FAILED" : "(failed)";
            fmt::print("  {:<8} {}\n", check.failures == 0 ? "ok" : failed, check.title);
            constexpr const char* kWhat = "           {} times, first: {}\n";
            if (check.failures > 0) fmt::print(kWhat, check.failures, check.example);
            if (!decides) fmt::print("           does not decide: {}\n", check.tolerance);
        }
    }

    Shared& shared() const { return service_.shared; }

    Check& check(const char* title) { return checks_.emplace_back(Check{title}); }

    const std::chrono::seconds duration_;
    const unsigned seed_;
    const Milliseconds load_ = Milliseconds(duration_) * 4 / 5;
    const Clock::time_point begin_ = Clock::now();
    Random random_{seed_};
    Process service_{""};
    std::array<std::unique_ptr<SimulatedManager>, 2> managers_;
    std::size_t in_use_ = 0;  // the Manager that the service is connected to
    bool is_connected_ = false;

    std::list<Check> checks_;
    Check& once_ = check("each task that was not cut off ran once and was answered once");
    Check& cut_once_ = check("each task that was cut off ran and was answered at most once");
    Check& stray_ = check("no reply without a task");
    Check& contents_ = check("each reply holds its own task's contents");
    Check& rejected_ = check("tasks to be rejected neither ran nor were answered");
    Check& sessions_check_ =
        check("each session started, got ready and ended once, and left the table");
    Check& losses_ = check("the service was told of each loss and return of the Manager");
    Check& queries_check_ = check("each query got its own answer, or none around a stop");
    Check& notices_check_ = check("each notice came once to each service, with its contents");
    Check& markers_check_ = check("each marker that was sent came");
    Check& threads_check_ = check("no more threads than after the warm-up");
    Check& descriptors_check_ = check("no more descriptors than after the warm-up");
    Check& memory_check_ = check("memory at most 5 % above that after the warm-up");
    Check& service_check_ =
        check("the service ended with status 0 and wrote nothing to standard error");
    Check& chance_ = check("by chance no call hung, and nothing of one life got into another");
    Check& progress_ = check("nothing was waited for in vain");

    std::mutex mutex_;
    std::condition_variable came_;
    std::vector<manager::Packet> packets_;  // guarded by mutex_

    Account tasks_{once_, cut_once_, &Shared::tasks, 1, 1};
    Account notices_{notices_check_, notices_check_, &Shared::notices, kServices.size(), 0};
    std::vector<Session> sessions_, left_sessions_;
    std::uint32_t last_session_ = 0;
    std::array<std::uint64_t, kQuestioners> markers_{};
    std::array<bool, kQuestioners> resynchronise_{};
    Clock::time_point next_session_, next_notice_, next_rejected_;
    std::uint32_t ready_ = 1;

    std::size_t cycles_ = 0, resets_ = 0, long_outages_ = 0, rejected_total_ = 0, undecodable_ = 0;
    std::size_t markers_total_ = 0, calls_ = 0, lives_ = 0, closings_ = 0, most_kib_ = 0;
    std::array<std::size_t, kStops> stops_{};
    std::array<std::size_t, kEvents> session_totals_{};
    std::optional<Usage> warm_;
    Usage last_;
    manager::Latencies latencies_;
    Clock::duration loaded_{};
};

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
    const int seconds = argc < 2 ? 60 : std::atoi(argv[1]);
    const int seed =
        argc < 3 ? static_cast<int>(std::random_device()() % 1'000'000 + 1) : std::atoi(argv[2]);
    if (argc > 3 || seconds < 1 || seconds > 86'400 || seed < 1) {
        std::fputs(
            "Usage: vexon-soak [SECONDS [SEED]]; up to a day, 60 seconds if nothing else is said\n",
            stderr);
        return 2;
    }
    enter_private_dev(VEXON_PRIVATE_DEV, argv);
    ::alarm(static_cast<unsigned>(seconds) + 180);  // all waits have shorter limits of their own
    soak::Soak soak(std::chrono::seconds(seconds), static_cast<unsigned>(seed));
    const bool passed = soak.run();
    fmt::print("\n{}\n", passed ? "Passed" : "FAILED");
    return passed ? 0 : 1;
}
