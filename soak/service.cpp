// SPDX-License-Identifier: Apache-2.0
// The service process of the soak test. It knows the library by its public headers only.
//
// First a service made with the kit serves, and carries out orders: 'l' to leave the Manager and
// start over, 't' to give back unused memory, 'f' to finish. Then threads call the library at
// random until the next 'f', with the id of the process and with former ones. Standard error gets
// what should not be.

#include <android-base/properties.h>
#include <android/log.h>
#include <malloc.h>
#include <sys/prctl.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "contract.h"
#include "fuzz/argument_reader.h"

namespace soak {
namespace {

using Kind = vexon::Event::Kind;

Shared* gShared = nullptr;
std::atomic<int> gRunning{0};  // functions

// The task whose reply this thread has sent last, 0 if it had none.
thread_local std::uint64_t tTask = 0;

void complain(const char* broken, const std::string& details) {
    std::fprintf(stderr, "%s: %s\n", broken, details.c_str());
}

// Two matters are told nowhere else: that a reply could not be sent, and that a session is known
// without having the service of a task.
void watch_log(const __android_logger_data*, const char* text) {
    const std::string_view line = text;
    if (line.rfind("client Sending message", 0) == 0) {
        tTask = number_after(text, R"("return":)");
    } else if (tTask != 0 && line.rfind("client NOT able to send msg", 0) == 0) {
        ++gShared->outcome_of(tTask).not_sent;
    } else if (line.rfind("No Session ", 0) == 0 &&
               line.substr(line.size() - kEndedProbe.size()) == kEndedProbe) {
        complain(kSession, text);
    }
}

// ---- What the kit calls

// Returns what the reply has as "return", the number of the task.
std::int32_t run_task(const vexon::Call& call) {
    const auto task = static_cast<std::uint32_t>(call.transaction());
    ++gShared->outcome_of(task).ran;
    if (call.function() == kRejected) complain(kNotRejected, std::to_string(task));
    ++gRunning;
    std::this_thread::sleep_for(nap_of(task));
    --gRunning;
    if (call.function() == kFailing) throw vexon::Error(call.transaction(), "soak");
    return call.transaction();
}

vexon::Result<> run_any(const vexon::Call& call) {
    const std::int32_t number = run_task(call);
    return {read_arguments(call.arguments()), number};
}

vexon::Result<> run_typed(const vexon::Call& call, std::uint32_t number, const std::string& text) {
    const std::int32_t result = run_task(call);
    return {vexon::Reply().add("number", number).add("text", text), result};
}

// A service in a session starts, gets ready, and ends. Only a stop may come before it is ready.
void follow_session(const vexon::Event& event) {
    static auto& steps = *new std::map<std::array<std::uint32_t, 3>, int>;  // that were taken
    const std::array key{event.session, event.opcode, event.subsystem};
    const bool is_end = event.kind == Kind::kSessionEnd;
    const int step = is_end ? 2 : event.kind == Kind::kSessionReady ? 1 : 0;
    const int taken = std::exchange(steps[key], step + 1);
    if (is_end) steps.erase(key);
    if (taken == step || (is_end && taken == 1 && gShared->is_disturbed())) return;
    complain(kSession, std::to_string(event.session));
}

// Only what was sent to a connection that is lost may not come.
void count_notice(const vexon::Event& event) {
    constexpr Kind kKinds[] = {Kind::kPermission, Kind::kState, Kind::kSetting};
    const std::uint64_t number = number_after(event.name, kNoticePrefix);
    const std::string text = std::to_string(number);
    const bool is_of_permission = number % 3 == 0;
    const bool is_right = gShared->notices.accept(number) && event.kind == kKinds[number % 3] &&
                          event.session == number && event.package == text &&
                          event.name == kNoticePrefix + text &&
                          event.value == (is_of_permission ? "" : text) &&
                          event.granted == (is_of_permission && number % 2 == 1);
    if (!is_right) complain(kNotice, event.name);
}

bool on_state(const vexon::Event& event) {
    if (event.kind == Kind::kSessionStart && is_refused_session(event.session)) return false;
    if (event.kind <= Kind::kOutOfService) {
        gShared->notices.may_skip = true;
        const auto* const change = std::find(kChanges.begin(), kChanges.end(), event.value);
        ++gShared->changes.at(static_cast<std::size_t>(change - kChanges.begin()));
    } else if (event.kind >= Kind::kPermission) {
        count_notice(event);
    } else {
        follow_session(event);
    }
    ++gShared->count_of(event.kind);
    return true;
}

// ---- Questions and markers

// Returns whether there was an answer. Only a time without the Manager excuses that there is none.
bool ask(Random& random) {
    const auto kind = random() % 3;
    std::vector<std::string> names, expected, answer;
    for (auto left = kind == 2 ? 1 + random() % 4 : 1; left > 0; --left) {
        const auto name = random() % kNames;
        names.push_back(kNamePrefix + std::to_string(name));
        expected.push_back(kind == 0 ? permission_of(name) : info_of(name));
    }
    const std::uint32_t before = gShared->turns;
    if (kind == 0) {
        const auto outcome = static_cast<std::size_t>(vexon::ask_permission(7, names[0]));
        answer.push_back(std::array{"granted", "denied", "", ""}.at(outcome));
    } else if (kind == 1) {
        const vexon::Info info = vexon::monitor_info(7, names[0]);
        const auto outcome = static_cast<std::size_t>(info.outcome);
        answer.push_back(std::array{"SUCCESS:", "ERROR:", "", ""}.at(outcome) + info.text);
    } else {
        answer = vexa_info_query(7, names);
    }
    const bool is_excused = gShared->is_disturbed() || before != gShared->turns;
    const bool is_none = answer.empty() || answer == std::vector<std::string>(names.size());
    ++gShared->queries;
    gShared->answered_queries += answer == expected;
    if (answer != expected && !(is_none && is_excused)) complain(kQuery, names[0]);
    return !is_none;
}

// 0 is the result of a send; the log gives another when nothing is to be sent.
void log_marker() {
    static std::mutex& mutex = *new std::mutex;
    const std::lock_guard lock(mutex);  // they are to come in order
    const std::string marker = kMarkerPrefix + std::to_string(gShared->markers + 1);
    gShared->markers += vexa_log_marker(marker.c_str()) == 0;
}

void ask_on(Random random) {
    while (gShared->order != 'f') {
        const bool is_answered = ask(random);
        if (random() % 8 == 0) log_marker();
        std::this_thread::sleep_for(is_answered ? 1ms : 20ms);
    }
}

// ---- The course

void serve() {
    android::base::SetProperty("ro.build.type", "userdebug");
    android::base::SetProperty("vendor.vexon.one.markers", "true");
    android::base::SetProperty("vendor.vexon.one.service", "vendor.mirt.soak");
    ::prctl(PR_SET_NAME, "mirt_soak");  // the thread that connects takes it over
    vexon::Service service(kOpcodes[0], "soak", "soak", {1, 2, 3});
    for (const std::uint32_t opcode : kOpcodes) {
        const bool is_first = opcode == kOpcodes[0];
        vexon::Api& api = is_first ? service : service.also(opcode, "soak", "soak", {1, 2, 3});
        for (const char* const name : {kAny, kFailing, kRejected}) api.function(name, run_any);
        api.function(kTyped, {"number", "text"}, run_typed);
    }
    service.on_state(on_state);
    service.pace({50ms, 200ms});
    std::vector<std::thread> questioners;
    for (unsigned i = 0; i < 8; ++i) questioners.emplace_back(ask_on, Random(i));
    for (char order = 'l'; order != 'f'; order = gShared->order) {
        if (order == 't') ::malloc_trim(0);  // of the only arena: then memory is what is in use
        if (order == 'l') {
            service.stop();
            if (gRunning != 0) complain("functions outlived stop()", std::to_string(gRunning));
            if (!service.start()) std::fputs(service.error().c_str(), stderr);
        }
        if (order != 0) gShared->order = 0;
        std::this_thread::sleep_for(1ms);
    }
    for (std::thread& thread : questioners) thread.join();
    service.stop();
}

// ---- Rounds of chance. Each call has to return soon, an id that is over must not be accepted, and
// no callback may get the user data of a life that is over. What else goes wrong, and that a call
// never returns, the Manager's side sees.

// A life lies between an id from the Manager and the end of vexa_svc_deinit() for it. Whether it is
// over stands beside its id. Ids rise.
using Life = std::map<int, std::atomic<bool>>::value_type;

// Never destroyed: threads of the library may still run when the process ends.
std::mutex& gMutex = *new std::mutex;
auto& gLives = *new std::map<int, std::atomic<bool>>;  // guarded by gMutex

void add_life(int id, bool over) {
    const std::lock_guard lock(gMutex);
    if (id >= 0) gShared->lives += gLives.try_emplace(id, over).second;
}

Life& any_life(Random& random) {
    const std::lock_guard lock(gMutex);
    const std::size_t count = gLives.size();
    const std::size_t at = random() % 5 == 0 ? random() % count : count - 1;
    return *std::next(gLives.begin(), static_cast<std::ptrdiff_t>(at));
}

int on_state_of_life(int, vexa_req_t*, void* user_data) {
    const auto& [id, over] = *static_cast<const Life*>(user_data);
    const bool was_over = over;
    std::this_thread::yield();
    if (was_over || over) complain(kChance, "released user data of " + std::to_string(id));
    return 0;
}

int run_anything(_vexon_call_info_t* call, vexon_func_call_info_t arguments) {
    call->func = read_arguments(arguments).text();
    return 0;
}

// Registers a service and declares it ready. Returns whether the library did.
bool offer(Life& life, std::uint32_t opcode) {
    const std::string definition = '\2' + vexon::Service(opcode, "any", "").definition();
    const auto* const api = reinterpret_cast<const std::uint8_t*>(definition.c_str());
    const auto id = static_cast<std::uint32_t>(life.first);
    return _vexa_svc_register_auth(id, opcode, api, "soak") == 0 &&
           _vexa_svc_ready(id, opcode, on_state_of_life, &life, run_anything) == 0;
}

// An opcode is used once: a second time might wait for ever.
void call_anything(Random& random) {
    Life& life = any_life(random);
    auto& [id, over] = life;
    const bool was_over = over;
    bool is_accepted = false;
    const auto what = random() % 16;
    if (what == 0) {
        vexa_info_query(1, {"any"});
    } else if (what == 1) {
        vexa_permission_query(1, {"any"});
    } else if (what == 2) {
        vexa_send_to_manager_raw(std::string(1 + random() % 60'000, 'x').c_str());
    } else if (what < 8) {
        add_life(vexa_svc_init(), false);
    } else if (what < 10) {
        is_accepted = vexa_svc_deinit(static_cast<std::uint32_t>(id)) == 0;
        if (is_accepted) over = true;
    } else {
        is_accepted = offer(life, ++gShared->last_opcode);
    }
    if (was_over && is_accepted) complain(kChance, "accepted the former " + std::to_string(id));
}

void call_on(Random random) {
    for (; gShared->order != 'f'; ++gShared->calls) {
        const auto begin = Clock::now();
        call_anything(random);
        if (Clock::now() - begin > 10s) complain(kChance, "a call took too long");
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    }
}

void take_chances(unsigned seed) {
    android::base::SetProperty("vendor.vexon.one.service", "");
    add_life(0, true);  // no Manager gives that
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 6; ++i) threads.emplace_back(call_on, Random(seed + i));
    for (std::thread& thread : threads) thread.join();
    for (const auto& [id, over] : gLives) vexa_svc_deinit(static_cast<std::uint32_t>(id));
}

}  // namespace

void run_service(Shared& shared, unsigned seed) {
    gShared = &shared;
    ::mallopt(M_ARENA_MAX, 1);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    __android_log_set_logger(watch_log);
    const auto count_threads = [] {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    };
    std::thread([] {}).join();  // with the first, a sanitizer starts one of its own
    const auto own_threads = count_threads();
    for (Outcome& outcome : shared.outcomes) outcome.ran = 0;  // memory that is in use from here on
    serve();
    shared.order = 0;
    take_chances(seed);
    // The library's threads end by themselves. One that is on its way out when the process ends
    // would look like a leak of what it holds.
    int left = 10'000;
    while (count_threads() > own_threads && --left > 0) std::this_thread::sleep_for(1ms);
    if (left == 0) std::fputs("threads of the library are left\n", stderr);
}

}  // namespace soak
