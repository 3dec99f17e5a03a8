// SPDX-License-Identifier: Apache-2.0
// Puts library and kit under load for a while: a Manager in this process, a service in another,
// both in a /dev of their own. Then come rounds of chance, and a table of figures and checks.

#include <fmt/ranges.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "contract.h"
#include "fuzz/argument_writer.h"
#include "manager/simulation/Manager.h"
#include "private_dev/enter_private_dev.h"

namespace soak {
namespace {

using Seconds = std::chrono::duration<double>;
using manager::Ending;
using manager::SimulatedManager;
using Event = vexon::Event::Kind;

constexpr std::size_t kSessions = 8;
constexpr Milliseconds kLongOutage = 22s;  // the library alone tries to connect for 20 s
constexpr auto kLimit = 45s;               // far beyond what anything takes that does not hang
constexpr std::string_view kSanitizers = VEXON_SANITIZERS;
// The library does not release what it rejects while decoding: none where leaks are looked for.
constexpr std::size_t kMostUndecodable = kSanitizers.find("address") == kSanitizers.npos ? 100 : 0;
constexpr char kUndecodable[] =
    R"([{"id":0,"type":"string","value":"7"},{"id":1,"type":"int16","value":40000}])";

// Made before the service process is.
Shared& gShared = *static_cast<Shared*>(::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0));

// What else must hold.
constexpr char kTask[] = "each task that was not cut off ran once and was answered once";
constexpr char kCutTask[] = "each task that was cut off ran and was answered at most once";
constexpr char kStrayReply[] = "no reply without a task";
constexpr char kContents[] = "each reply holds its own task's contents";
constexpr char kLoss[] = "the service was told of each loss and return of the Manager";
constexpr char kMarker[] = "each marker that was sent came";
constexpr char kThreads[] = "no more threads than after the warm-up";
constexpr char kDescriptors[] = "no more descriptors than after the warm-up";
constexpr char kMemory[] = "memory at most 5 % above that after the warm-up";
constexpr char kService[] = "the service ended with status 0 and wrote nothing to standard error";
constexpr char kInVain[] = "nothing was waited for in vain";

// How a connection ends. The library reads all that the Manager sent before it closed, and the
// Manager all that the service sent before it left; neither is so after a reset.
enum class Cut { kNone, kByManager, kByService, kByReset };

// A task until it is settled.
struct Task {
    std::string reply = {};  // as it is to be
    Clock::time_point delivered = {};
    Cut cut = Cut::kNone;
    Clock::time_point when_cut = {};
};

// A session for all services is started, takes tasks until its end, is ended and ended again, which
// is to be refused, since it has left the table.
enum class Stage { kStarting, kActive, kEnding, kEndingAgain };

struct Session {
    Clock::time_point end;
    Stage stage = Stage::kStarting;
};

using Tasks = std::map<std::uint64_t, Task>;
using Sessions = std::map<std::uint32_t, Session>;

const std::vector<manager::Target> kNone,
    kAll{{kOpcodes[0], {1, 2, 3}}, {kOpcodes[1], {1, 2, 3}}, {kOpcodes[2], {1, 2, 3}}};

// The stops in the order of their rotation.
enum Stop { kManagerDrained, kServiceCut, kManagerCut, kServiceDrained, kManagerReset, kStops };

struct Usage {
    double memory_kib = 0;
    std::size_t threads = 0, descriptors = 0;
};

struct InVain {};

// The service process, which ends with this one. To be started while there is one thread.
struct Process {
    explicit Process(unsigned seed) : pid(::fork()) {
        if (pid != 0) return;
        ::dup2(::fileno(errors), STDERR_FILENO);
        run_service(gShared, seed);
        std::exit(0);
    }
    bool has_ended() { return status >= 0 || ::waitpid(pid, &status, WNOHANG) == pid; }
    // What it should not have written or ended with.
    std::string complaint() const {
        std::string text(65536, '\0');
        std::rewind(errors);
        text.resize(std::fread(text.data(), 1, text.size(), errors));
        return status <= 0 ? text : fmt::format("status {}\n{}", status, text);
    }
    Usage usage() const {
        const std::string directory = fmt::format("/proc/{}/", pid);
        const auto number_in = [&](const char* file, std::string_view key) {
            std::ifstream stream(directory + file);
            return number_after({std::istreambuf_iterator<char>(stream), {}}, key);
        };
        std::error_code error;
        const std::filesystem::directory_iterator files(directory + "fd", error);
        return {static_cast<double>(number_in("smaps_rollup", "\nRss:")),
                number_in("status", "\nThreads:"),
                static_cast<std::size_t>(std::distance(begin(files), end(files)))};
    }

    std::FILE* const errors = std::tmpfile();
    const pid_t pid;
    int status = -1;  // until it has ended
};

bool has(const manager::Packet& packet, std::string_view part) {
    return packet.text.find(part) != std::string::npos;
}

bool is_due(Clock::time_point& next, Milliseconds interval) {
    if (Clock::now() < next) return false;
    next = Clock::now() + interval;
    return true;
}

class Soak {
  public:
    Soak(std::chrono::seconds duration, unsigned seed)
        : duration_(duration), seed_(seed), service_(seed) {}

    // Returns whether all checks hold. Prints the closing table.
    bool run() {
        try {
            start_manager();
            await_ready();
            run_load();
            take_chances();
        } catch (const InVain&) {
            close_accounts();
        }
        const std::string complaint = service_.complaint();
        manager_ = nullptr;
        if (!complaint.empty()) fail(kService, "{:.1000}", complaint);
        for (const char* const title : {kNotRejected, kSession, kQuery, kNotice, kChance})
            if (complaint.find(title) != complaint.npos) fail(title, "see what the service wrote");
        print_figures();
        return print_checks();
    }

  private:
    // ---- The course. Each step throws InVain when it waits in vain.

    void run_load() {
        const Milliseconds shortest = 400ms;
        const auto cycle = std::clamp<Milliseconds>(load_ / 20, shortest, 10s);
        const auto end = begin_ + load_;
        while (true) {
            run_cycle(std::min(Clock::now() + cycle, std::max(end, Clock::now() + shortest)));
            if (++cycles_ > kStops + 1 && Clock::now() >= end) break;
            stop(static_cast<Stop>(cycles_ % kStops));
        }
        drain();
        give_order('f', "the end of the load");
        judge_change(kStopped);
        manager_->stop(Ending::Orderly);
        take_packets(0ms);
        const bool is_last = markers_.may_skip || markers_.last == gShared.markers;
        if (!is_last) fail(kMarker, "the last did not come");
        close_accounts();
        judge_usage();
    }

    void run_cycle(Clock::time_point end) {
        const Clock::time_point begin = Clock::now();
        last_task_ |= 4095;  // see nap_of()
        for (auto now = begin; now < end; now = Clock::now()) {
            if (sessions_.size() < kSessions && is_due(next_session_, 20ms)) start_session();
            end_sessions(now);
            if (is_due(next_notice_, 3ms)) send_notice();
            if (is_due(next_rejected_, 10ms)) send_rejected();
            send_tasks();
            take_packets(1ms);
            sweep();
        }
        loaded_ += Clock::now() - begin;
    }

    // Ends all sessions and waits for all that is under way.
    void drain() {
        await("the end of all that was under way", [this] {
            end_sessions(Clock::time_point::max());
            sweep();
            return sessions_.empty() && tasks_.empty() && gShared.notices.last == delivered_notice_;
        });
        observe_usage();
    }

    // Nothing is under way, so that the figures of different times can be compared. A thread that
    // has sent its reply may yet have to end, and so may a receive thread.
    void observe_usage() {
        const auto limit = Clock::now() + 5s;
        for (int still = 0; still < 20 && Clock::now() < limit; ++still) {
            take_packets(10ms);
            const Usage before = std::exchange(last_, service_.usage());
            if (last_.threads != before.threads || last_.descriptors != before.descriptors)
                still = 0;
        }
        give_order('t', "the service to give back memory");
        last_ = service_.usage();
        const bool is_warm = cycles_ >= kStops && Clock::now() - begin_ >= load_ / 4;
        if (is_warm && !warm_) warm_ = last_;
    }

    void stop(Stop kind) {
        ++stops_.at(kind);
        if (kind == kManagerDrained || kind == kServiceDrained) drain();
        ++gShared.turns;
        const bool by_service = kind == kServiceDrained || kind == kServiceCut;
        by_service ? start_over(kind == kServiceCut) : lose_manager(kind);
        judge_change(by_service ? kStopped : kind == kManagerReset ? kReset : kClosed);
        sessions_.clear();
        former_sessions_ = last_session_;
    }

    void lose_manager(Stop kind) {
        const bool is_reset = kind == kManagerReset;
        const bool is_long = kind == kManagerCut && duration_ >= 240s && long_outages_ == 0 &&
                             Clock::now() - begin_ > load_ / 2;
        long_outages_ += is_long;
        if (is_reset) {  // with replies on their way
            manager_->set_reading(false);
            for (const auto end = Clock::now() + 50ms; Clock::now() < end; take_packets(1ms))
                send_tasks();
        }
        cut(is_reset ? Cut::kByReset : Cut::kByManager);
        manager_->stop(is_reset ? Ending::Abrupt : Ending::Orderly);
        take_packets(0ms);
        if (is_reset) markers_.may_skip = true;
        std::this_thread::sleep_for(is_long ? kLongOutage : Milliseconds(10 + random_() % 150));
        start_manager();
        await_ready();
        if (!is_reset && gShared.notices.last != delivered_notice_)
            fail(kNotice, "the last did not come");
    }

    // The service was told of this change, to be back after each, and of no others.
    void judge_change(Change change) {
        // The Manager need not have gone with a packet unread.
        if (change == kReset && gShared.changes[kReset] == changes_[kReset]) change = kClosed;
        ++changes_.at(change);
        const auto open =
            gShared.count_of(Event::kSessionStart) - gShared.count_of(Event::kSessionEnd);
        if (open != 0) fail(kSession, "{} were not ended", open);
        if (!std::equal(changes_.begin(), changes_.end(), gShared.changes.begin()))
            fail(kLoss, "changes by kind: {} instead of {}", fmt::join(gShared.changes, " "),
                 fmt::join(changes_, " "));
    }

    // Has the service leave and come back, if `abruptly` in the midst of tasks and new sessions.
    void start_over(bool abruptly) {
        for (int i = 0; abruptly && i < 5; ++i) start_session();
        gShared.order = 'l';
        for (int i = 0; abruptly && i < 5; ++i, take_packets(1ms)) send_tasks();
        await_ready();
        cut(Cut::kByService);
    }

    void await_ready() {
        await("the service to get ready",
              [this] { return gShared.changes[kBack] > changes_[kBack]; });
        ++changes_[kBack];
        ++gShared.turns;
        is_connected_ = true;
    }

    void give_order(char order, const char* what) {
        gShared.order = order;
        await(what, [] { return gShared.order == 0; });
    }

    template <class Done>
    void await(const char* what, Done done) {
        for (const auto deadline = Clock::now() + kLimit; !done(); take_packets(1ms)) {
            if (!service_.has_ended() && Clock::now() < deadline) continue;
            fail(kInVain, "{}", service_.has_ended() ? "the service ended before its time" : what);
            throw InVain();
        }
        take_packets(0ms);
    }

    // A new start has a new object: that of before has logged each packet.
    void start_manager() {
        manager_ = std::make_unique<SimulatedManager>(manager::kDedicatedPath);
        for (std::uint64_t name = 0; name < kNames; ++name) {
            const std::string text = kNamePrefix + std::to_string(name);
            if (permission_of(name) == "granted") manager_->grant(text);
            manager_->set_info(text, info_of(name));
        }
        manager_->set_observer([this](const manager::Event& packet) {
            if (!is_packet(packet)) return;
            const std::lock_guard lock(mutex_);
            packets_.push_back(packet);
            came_.notify_one();
        });
        manager_->start();
    }

    // ---- The load

    // What is meant for a service that has gone is dropped.
    void send(const std::string& text) try {
        manager_->send_for_opcode(kOpcodes[0], text);
    } catch (const manager::ManagerError&) {
        is_connected_ = false;
    }

    Sessions::value_type& any_session() {
        return *std::next(sessions_.begin(),
                          static_cast<std::ptrdiff_t>(random_() % sessions_.size()));
    }

    void send_tasks() {
        const auto in_flight = std::count_if(
            tasks_.begin(), tasks_.end(), [](const auto& e) { return e.second.cut == Cut::kNone; });
        for (auto left = kInFlight - in_flight; left > 0 && is_connected_ && !sessions_.empty();
             --left) {
            const auto& [id, session] = any_session();
            if (session.stage != Stage::kActive) continue;
            const std::uint32_t opcode = kOpcodes[random_() % kOpcodes.size()];
            send_task(id, opcode, static_cast<std::uint32_t>(1 + random_() % 3));
        }
    }

    // A few have many arguments.
    void send_task(std::uint32_t session, std::uint32_t opcode, std::uint32_t subsystem) {
        const std::uint64_t number = new_task();
        std::minstd_rand random(static_cast<std::uint32_t>(number));
        const Json::Value any = make_arguments(number % 512 == 0 ? 300 : number % 6, random);
        manager::Task task{session, opcode, subsystem, kAny, one_line(any)};
        std::string func =
            fmt::format(R"("name":"any","num_of_args":{},"args":{})", any.size(), task.args);
        if (number % 16 == 7) {
            task.name = kFailing;
            func = R"("error":"soak")";
        } else if (number % 4 == 1) {
            task.name = kTyped;
            task.args = fmt::format(
                R"([{{"id":0,"type":"uint32","value":{0}}},{{"id":1,"type":"string","value":"\"{0}\""}}])",
                number);
            func = fmt::format(R"("number":{0},"text":"\"{0}\"")", number);
        }
        tasks_[number].reply = fmt::format(
            R"({{"opcode":"{:#x}","name":"{}","subsys_id":"{}","req_type":"exec_task","return":{},)"
            R"("func":{{{}}},"transac_id":{},"status": {},"session_id":{}}})",
            opcode, task.name, subsystem, number, func, number, number % 16 == 7 ? -1 : 0, session);
        send(manager::exec_task_message(task, static_cast<std::int64_t>(number)));
    }

    void send_rejected(const manager::Task& task) {
        ++rejected_total_;
        send(manager::exec_task_message(task, static_cast<std::int64_t>(new_task())));
    }

    // Each is to be rejected for one reason alone.
    void send_rejected() {
        if (sessions_.empty()) return;
        const auto& [id, session] = any_session();
        manager::Task task{id, kOpcodes[0], 1, kRejected};
        const auto reason = random_() % 3;
        if (session.stage > Stage::kActive) return;
        if (session.stage == Stage::kStarting) return send_rejected(task);
        if (reason == 0) task.session = 0;
        if (reason == 1) task.subsystem = 99;
        if (reason == 2) task.opcode = 0x77;
        if (reason == 2 && undecodable_ < kMostUndecodable) {
            task.opcode = kOpcodes[0];
            task.args = kUndecodable;
            ++undecodable_;
        }
        send_rejected(task);
    }

    void send_notice() {
        const std::string number = std::to_string(++last_notice_), name = kNoticePrefix + number;
        const manager::Affected affected{static_cast<std::int64_t>(last_notice_), number};
        const auto kind = last_notice_ % 3;
        const auto message =
            kind == 1 ? manager::state_change_message : manager::setting_change_message;
        const bool granted = last_notice_ % 2 == 1;
        send(kind == 0 ? manager::permission_change_message(name, granted, affected)
                       : message(name, number, affected));
    }

    void start_session() {
        sessions_[++last_session_].end = Clock::now() + Milliseconds(50 + random_() % 500);
        send(manager::start_session_message(last_session_, 1, kAll));
    }

    // By the names of their services, or else as a whole.
    void end_sessions(Clock::time_point now) {
        for (auto& [id, session] : sessions_) {
            if (session.stage != Stage::kActive || now < session.end) continue;
            session.stage = Stage::kEnding;
            send(manager::end_session_message(id, 1, id % 2 == 0 ? kAll : kNone));
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
        if (packet.kind == manager::Kind::ToClient) {
            note_delivery(packet);
        } else if (packet.text.rfind(kMarkerPrefix, 0) == 0) {
            const std::uint64_t marker = number_after(packet.text, kMarkerPrefix);
            if (!markers_.accept(marker)) fail(kMarker, "{} is out of order", marker);
        } else if (has(packet, "_session\"")) {
            take_response(packet);
        } else if (has(packet, R"("req_type":"exec_task")")) {
            take_reply(packet);
        }
    }

    void note_delivery(const manager::Packet& packet) {
        if (has(packet, kNoticePrefix)) {
            delivered_notice_ = number_after(packet.text, kNoticePrefix);
            ++notices_sent_;
        }
        if (!has(packet, R"("exec_task")")) return;
        const auto task = tasks_.find(number_after(packet.text, R"("transac_id":)"));
        if (task == tasks_.end()) return;  // it is to be rejected
        task->second.delivered = packet.time;
        ++tasks_sent_;
    }

    void take_reply(const manager::Packet& packet) {
        const auto number = number_after(packet.text, R"("transac_id":)");
        const auto found = tasks_.find(number);
        if (found == tasks_.end()) {
            const bool is_known = number != 0 && number <= last_task_;
            const bool is_rejected = has(packet, "\"rejected\"");
            const char* const title = !is_known ? kStrayReply : is_rejected ? kNotRejected : kTask;
            return fail(title, "another reply of transaction {}", number);
        }
        const Task& task = found->second;
        if (packet.text != task.reply) fail(kContents, "{} instead of {}", packet.text, task.reply);
        settle(found, true);
    }

    void take_response(const manager::Packet& response) {
        const auto id = static_cast<std::uint32_t>(number_after(response.text, R"("session_id":)"));
        const auto entry = sessions_.find(id);
        if (id <= former_sessions_) return;  // its connection has gone
        if (entry == sessions_.end()) return fail(kSession, "unexpected {}", response.text);
        Stage& stage = entry->second.stage;
        const bool succeeds =
            stage == Stage::kStarting ? !is_refused_session(id) : stage == Stage::kEnding;
        const bool has_succeeded = has(response, R"("Result":"Success")");
        const bool is_over = gShared.is_disturbed();  // a service that leaves refuses
        if (has_succeeded != succeeds && (has_succeeded || !is_over))
            fail(kSession, "wrong {}", response.text);
        if (is_over) return;
        if (stage == Stage::kStarting && succeeds) {
            stage = Stage::kActive;
            send(manager::ready_session_message(id, kAll));
        } else if (stage == Stage::kEnding) {
            // The library shall know nothing of the session any more.
            stage = Stage::kEndingAgain;
            send_rejected({id, kOpcodes[0], kEndedProbeSubsystem, kRejected});
            send(manager::end_session_message(id, 1, kNone));
        } else {
            sessions_.erase(entry);
        }
    }

    // ---- The accounts

    std::uint64_t new_task() {
        Outcome& outcome = gShared.outcome_of(++last_task_);
        outcome.ran = outcome.not_sent = 0;
        return last_task_;
    }

    // Whether what was cut off may not have reached the service, or only when that had stopped.
    bool may_be_lost(const Tasks::value_type& task) const {
        const auto& [number, item] = task;
        return item.cut == Cut::kByReset ||
               (item.cut == Cut::kByService && gShared.outcome_of(number).ran == 0) ||
               (item.cut != Cut::kNone && item.delivered == Clock::time_point());
    }

    // Each has to run and to be answered once. Only of what was cut off may the reply not be sent,
    // or nothing come at all.
    void settle(Tasks::iterator task, bool is_answered) {
        const Outcome& outcome = gShared.outcome_of(task->first);
        const bool ran = outcome.ran == 1;
        const bool is_cut = task->second.cut != Cut::kNone;
        const int not_sent = outcome.not_sent;
        const int replies = not_sent + (is_answered ? 1 : 0);
        const bool is_whole = ran && replies == 1 && (is_cut || is_answered);
        if (!is_whole && !(replies == 0 && may_be_lost(*task))) {
            fail(is_cut ? kCutTask : kTask,
                 "{} ran {} times, answered {:d} times, not sent {} times", task->first,
                 outcome.ran, is_answered, not_sent);
        }
        ran_ += ran;
        answered_ += is_answered;
        not_sent_ += not_sent != 0;
        cut_off_ += is_cut;
        tasks_.erase(task);
    }

    // Settles those whose reply could not be sent, and what was cut off so long ago.
    void sweep(Clock::duration age = 1s) {
        for (auto next = tasks_.begin(); next != tasks_.end();) {
            const auto task = next++;
            const bool is_old = may_be_lost(*task) && Clock::now() - task->second.when_cut >= age;
            if (is_old || gShared.outcome_of(task->first).not_sent != 0) settle(task, false);
        }
    }

    void cut(Cut by) {
        for (auto& [number, task] : tasks_) {
            task.cut = std::max(task.cut, by);
            task.when_cut = Clock::now();
        }
    }

    // Nothing can come any more.
    void close_accounts() {
        sweep(0s);
        while (!tasks_.empty()) settle(tasks_.begin(), false);
        for (const auto& [id, session] : sessions_) fail(kSession, "no end of session {}", id);
    }

    void judge_usage() {
        if (!warm_) return fail(kInVain, "the end of the warm-up");
        const auto compare = [this](const char* title, auto warm, auto last) {
            if (last > warm) fail(title, "{} then, {} at last", warm, last);
        };
        compare(kThreads, warm_->threads, last_.threads);
        compare(kDescriptors, warm_->descriptors, last_.descriptors);
        compare(kMemory, warm_->memory_kib * 1.05, last_.memory_kib);
    }

    template <class... Values>
    void fail(const char* title, const char* format, const Values&... values) {
        const std::lock_guard lock(mutex_);
        auto& [count, first] = failures_[title];
        if (count++ == 0) first = fmt::format(fmt::runtime(format), values...);
    }

    // ---- Rounds of chance: the Manager does what it likes, and the service takes chances as well

    void take_chances() {
        SimulatedManager manager(manager::kDefaultPath);
        // Used by the observer only: the id of each connection, and the latest one. A connection
        // that the library has opened again by itself carries that of the one before.
        std::map<int, std::uint64_t> ids;
        std::uint64_t latest = 0;
        manager.set_observer([&](const manager::Event& event) {
            if (event.kind == manager::Kind::Connected) ids.emplace(event.client, latest);
            if (event.kind == manager::Kind::ToClient) {
                if (!has(event, R"("INIT")") || has(event, ":-1")) return;
                latest = ids[event.client] = number_after(event.text, R"("service_id":)");
            } else if (has(event, R"("Service_Id":)")) {
                const std::uint64_t id = number_after(event.text, R"("Service_Id":)");
                if (id != ids[event.client]) fail(kChance, "{} of another life", event.text);
                if (has(event, R"("DINT")") && id == latest) latest = 0;
            }
        });
        std::int64_t last_service = 0;  // an id is given once only
        manager.start(last_service);
        const auto end = Clock::now() + Milliseconds(duration_) / 5;
        for (Clock::time_point next_closing; !service_.has_ended();) {
            act_by_chance(manager);
            if (is_due(next_closing, Milliseconds(random_() % 200))) {
                const auto ending = random_() % 2 == 0 ? Ending::Orderly : Ending::Abrupt;
                const bool stops = random_() % 2 == 0;
                ++closings_;
                stops ? manager.stop(ending) : manager.close_clients(ending);
                std::this_thread::sleep_for(Milliseconds(random_() % 30));
                if (stops) manager.start(last_service += 100'000);
                manager.set_reading(true);
            }
            std::this_thread::sleep_for(Milliseconds(random_() % 10));
            if (Clock::now() > end) gShared.order = 'f';
            if (Clock::now() > end + kLimit) return fail(kChance, "a call does not return");
        }
        manager.stop();
    }

    void act_by_chance(SimulatedManager& manager) {
        const auto what = random_() % 12;
        const auto step = static_cast<manager::Step>(random_() % manager::kStepCount);
        if (what == 0) manager.refuse(step);
        if (what == 1) manager.set_delay(step, Milliseconds(random_() % 50));
        if (what == 2) manager.set_drop(step, true);
        if (what == 3) manager.set_twice(step, random_() % 2 == 0);
        if (what == 4) manager.set_reading(random_() % 8 != 0);
        if (what < 5) return;
        manager.accept(step);
        manager.set_drop(step, false);
        manager.set_delay(step, 0ms);
        const auto session = static_cast<std::int64_t>(1 + random_() % 4);
        const std::vector<manager::Target> targets{{gShared.last_opcode, {1}}};
        manager.send_to_all(manager::start_session_message(session, 1, targets));
        manager.send_to_all(manager::ready_session_message(session, targets));
        manager.send_to_all(
            manager::exec_task_message({session, gShared.last_opcode, 1, "any"}, session));
        manager.send_to_all(manager::permission_change_message("any", true, {}));
        manager.send_to_all(manager::end_session_message(session, 1, {}));
    }

    // ---- What is shown

    void print_figures() const {
        const double loaded = std::max(Seconds(loaded_).count(), 0.001);
        const Usage warm = warm_.value_or(last_);
        fmt::print(
            R"(
  Duration    {:.1f} s, of which {:.1f} s under load
  Connections {}; the Manager stopped {} times after draining, {} times abruptly,
              {} times with packets unread ({} resets), {} times for longer than 20 s;
              the service started over {} times after draining, {} times abruptly
  Sessions    of their services {} started, {} ready, {} ended
  Tasks       {} sent, {} ran, {} answered, {:.0f} per second under load
              {} rejected, {} of them while decoding
              {} cut off: the replies of {} could not be sent, {} never read
  Queries     {} asked, {} answered
  Notices     {} sent, {} came
  Markers     {} received
  Memory      {:.0f} KiB after the warm-up, {:.0f} KiB at last
  Threads     {} after the warm-up, {} at last
  Descriptors {} after the warm-up, {} at last
  Chance      {} calls in {} lives, {} times closed; seed {}

)",
            Seconds(Clock::now() - begin_).count(), loaded, gShared.changes[kBack],
            stops_[kManagerDrained], stops_[kManagerCut], stops_[kManagerReset], changes_[kReset],
            long_outages_, stops_[kServiceDrained], stops_[kServiceCut],
            gShared.count_of(Event::kSessionStart), gShared.count_of(Event::kSessionReady),
            gShared.count_of(Event::kSessionEnd), tasks_sent_, ran_, answered_,
            static_cast<double>(answered_) / loaded, rejected_total_, undecodable_, cut_off_,
            not_sent_, tasks_sent_ - ran_, gShared.queries, gShared.answered_queries, notices_sent_,
            gShared.notices.count, markers_.count, warm.memory_kib, last_.memory_kib, warm.threads,
            last_.threads, warm.descriptors, last_.descriptors, gShared.calls, gShared.lives,
            closings_, seed_);
    }

    bool print_checks() {
        bool all_hold = true;
        for (const char* const title :
             {kTask, kCutTask, kStrayReply, kContents, kNotRejected, kSession, kLoss, kQuery,
              kNotice, kMarker, kThreads, kDescriptors, kMemory, kService, kChance, kInVain}) {
            const auto& [count, first] = failures_[title];
            // A short run has not seen enough of it, and sanitizers need some of their own.
            if (title == kMemory && (duration_ < 30s || !kSanitizers.empty())) continue;
            fmt::print("  {:<8} {}\n", count == 0 ? "ok" : "FAILED", title);
            if (count != 0) fmt::print("           {} times, first: {}\n", count, first);
            all_hold &= count == 0;
        }
        return all_hold;
    }

    const std::chrono::seconds duration_;
    const unsigned seed_;
    const Milliseconds load_ = Milliseconds(duration_) * 4 / 5;
    const Clock::time_point begin_ = Clock::now();
    Random random_{seed_};
    Process service_;

    std::mutex mutex_;
    std::condition_variable came_;
    std::vector<manager::Packet> packets_;                                 // guarded by mutex_
    std::map<const char*, std::pair<std::size_t, std::string>> failures_;  // the same, by title

    Tasks tasks_;
    Sessions sessions_;
    Sequence markers_{};
    std::uint64_t last_task_ = 0, last_notice_ = 0, delivered_notice_ = 0;
    std::uint32_t last_session_ = 0, former_sessions_ = 0;
    Clock::time_point next_session_, next_notice_, next_rejected_;

    std::array<std::size_t, kStops> stops_{};
    std::array<std::uint32_t, kChanges.size()> changes_{};
    std::size_t cycles_ = 0, long_outages_ = 0, closings_ = 0;
    std::size_t tasks_sent_ = 0, ran_ = 0, answered_ = 0, cut_off_ = 0, not_sent_ = 0;
    std::size_t rejected_total_ = 0, undecodable_ = 0, notices_sent_ = 0;
    std::optional<Usage> warm_;
    Usage last_;
    Clock::duration loaded_{};

    std::unique_ptr<SimulatedManager> manager_;  // the first to go: it calls the observer
    bool is_connected_ = false;
};

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
    const int seconds = argc < 2 ? 60 : std::atoi(argv[1]);
    const int seed =
        argc < 3 ? static_cast<int>(std::random_device()() % 1'000'000 + 1) : std::atoi(argv[2]);
    if (argc > 3 || seconds < 1 || seconds > 86'400 || seed < 1) {
        std::fputs("Usage: vexon-soak [SECONDS [SEED]]; a day at most\n", stderr);
        return 2;
    }
    enter_private_dev(VEXON_PRIVATE_DEV, argv);
    ::alarm(static_cast<unsigned>(seconds) + 180);  // all waits have shorter limits of their own
    soak::Soak soak(std::chrono::seconds(seconds), static_cast<unsigned>(seed));
    const bool passed = soak.run();
    fmt::print("\n{}\n", passed ? "Passed" : "FAILED");
    return passed ? 0 : 1;
}
