// The service process of the soak test. It knows the library by its public header only.
//
// First it serves and carries out orders: 'l' to leave the Manager and start over, 't' to give back
// unused memory, 'f' to finish. Then threads call the library at random until the next 'f', with
// the id of the process and with former ones. Standard error gets what should not be.

#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android/log.h>
#include <malloc.h>
#include <sys/prctl.h>

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

Shared* gShared = nullptr;
std::atomic<bool> gLost{false};

// The transaction of the task that this thread runs.
thread_local std::uint64_t tTransaction = 0;

// Two matters are told nowhere else: that a reply could not be sent, which is said on the thread of
// the task, and that a session is known without having the service of a task.
void watch_log(const __android_logger_data*, const char* text) {
    const std::string_view line = text;
    if (tTransaction != 0 && line.rfind("client NOT able to send msg", 0) == 0) {
        ++gShared->outcome_of(tTransaction).not_sent;
    } else if (line.rfind("No Session ", 0) == 0 &&
               line.substr(line.size() - kEndedProbe.size()) == kEndedProbe) {
        ++gShared->wrong_sessions;
    }
}

// ---- What the library calls

template <std::size_t service>
int run_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    tTransaction = static_cast<std::uint32_t>(call->transac_id);
    ++gShared->outcome_of(tTransaction).ran;
    if (args.func_name == "rejected") ++gShared->rejected_ran;
    std::this_thread::sleep_for(nap_of(tTransaction));
    call->opcode = std::to_string(kOpcodes[service]);
    call->name = args.func_name;
    call->func = read_arguments(args);
    call->return_value = static_cast<std::int32_t>(tTransaction);
    return 0;
}

constexpr vexon_exec_callback_t kExecCallbacks[] = {run_task<0>, run_task<1>, run_task<2>};

// A service in a session starts, gets ready, and ends. Only a stop may come before it is ready.
void follow_session(const vexa_req_t& told) {
    static auto& steps = *new std::map<std::array<std::uint32_t, 3>, int>;  // that were taken
    const std::array key{told.session_id, told.opcode, told.subsys_id};
    const bool is_end = told.status == VEXA_STATUS_SESSION_END;
    const int step = is_end ? 2 : told.status == VEXA_STATUS_SESSION_READY ? 1 : 0;
    const int taken = std::exchange(steps[key], step + 1);
    const bool is_cut_off = is_end && taken == 1 && gShared->disturbances % 2 == 1;
    gShared->wrong_sessions += taken != step && !is_cut_off;
    if (is_end) steps.erase(key);
}

// Only what was sent to a connection that is lost may not come.
void count_notice(const vexa_req_t& told, Sequence& notices) {
    constexpr vexa_status_t kStatuses[] = {VEXA_STATUS_PERMISSION_CHANGE, VEXA_STATUS_STATE_CHANGE,
                                           VEXA_STATUS_SYSTEM_SETTING_CHANGE};
    const std::uint64_t number = number_after(told.permission + told.state, kNoticePrefix);
    const std::string text = std::to_string(number);
    const bool is_of_permission = number % 3 == 0;
    const bool is_right =
        notices.accept(number) && told.status == kStatuses[number % 3] &&
        told.session_id == number && told.package == text &&
        (is_of_permission ? told.permission == kNoticePrefix + text &&
                                told.permission_status == static_cast<std::int64_t>(number % 2)
                          : told.state == kNoticePrefix + text + ":" + text);
    gShared->wrong_notices += !is_right;
}

int on_state(int, vexa_req_t* told, void* notices) {
    const bool starts = told->status == VEXA_STATUS_SESSION_START;
    if (starts && is_refused_session(told->session_id)) return -1;
    ++gShared->told.at(static_cast<std::size_t>(told->status));
    if (starts || told->status == VEXA_STATUS_SESSION_READY ||
        told->status == VEXA_STATUS_SESSION_END) {
        follow_session(*told);
    } else if (!told->package.empty()) {
        count_notice(*told, *static_cast<Sequence*>(notices));
    }
    return 0;
}

void on_receive_end(vexa_receive_end_t reason, void*) {
    ++gShared->receive_ends.at(static_cast<std::size_t>(reason));
    if (reason != VEXA_RECEIVE_END_DISCONNECTED) gLost = true;
}

// ---- Questions and markers

// Returns whether there was an answer. Only a time without the Manager excuses that there is none.
bool ask(Random& random) {
    const auto kind = random() % 3;
    std::vector<std::string> names, expected, answer;
    for (auto left = 1 + random() % 4; left > 0; --left) {
        const auto name = random() % kNames;
        names.push_back(kNamePrefix + std::to_string(name));
        expected.push_back(kind == 0 ? permission_of(name) : info_of(name));
    }
    const std::uint32_t before = gShared->disturbances;
    if (kind != 0) {
        answer = (kind == 1 ? vexa_info_query : vexa_info_monitor)(7, names);
    } else {
        for (const bool granted : vexa_permission_query(7, names)) {
            answer.push_back(granted ? "granted" : "denied");
        }
    }
    const bool is_excused = before % 2 == 1 || before != gShared->disturbances;
    const bool is_none = answer.empty() || answer == std::vector<std::string>(names.size());
    ++gShared->queries;
    gShared->answered_queries += answer == expected;
    gShared->wrong_queries += answer != expected && !(is_none && is_excused);
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

// Registers a service and declares it ready. Returns whether the library did.
bool offer(int id, std::uint32_t opcode, vexa_state_callback_t state_callback, void* user_data,
           vexon_exec_callback_t exec_callback) {
    const std::string definition = android::base::StringPrintf(
        R"(%c{"Vexon":{"opcode":"%x","subsystems":[{"id":1},{"id":2},{"id":3}]}})", 2, opcode);
    const auto* const api = reinterpret_cast<const std::uint8_t*>(definition.c_str());
    const auto service_id = static_cast<std::uint32_t>(id);
    return _vexa_svc_register_auth(service_id, opcode, api, "soak") == 0 &&
           _vexa_svc_ready(service_id, opcode, state_callback, user_data, exec_callback) == 0;
}

// The callback is set anew so that what was lost and given up in the meantime says so.
void take_leave(int id) {
    const int result = vexa_svc_deinit(static_cast<std::uint32_t>(id));
    if (result != 0) std::fprintf(stderr, "vexa_svc_deinit: %d\n", result);
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    gLost = false;
    for (Sequence& notices : gShared->notices) notices.may_skip = true;
}

// Tries until the Manager can be reached and takes all services. Returns the service id.
int connect() {
    for (;; std::this_thread::sleep_for(50ms)) {
        const int id = vexa_svc_init();
        bool is_ready = id >= 0;
        for (std::size_t i = 0; is_ready && i < kOpcodes.size(); ++i) {
            is_ready = offer(id, kOpcodes[i], on_state, &gShared->notices[i], kExecCallbacks[i]);
        }
        gShared->ready += is_ready;
        if (is_ready) return id;
        if (id >= 0) take_leave(id);
    }
}

void serve() {
    android::base::SetProperty("ro.build.type", "userdebug");
    android::base::SetProperty("vendor.vexon.one.markers", "true");
    android::base::SetProperty("vendor.vexon.one.service", "vendor.mirt.soak");
    ::prctl(PR_SET_NAME, "mirt_soak");  // the thread that connects
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    int id = connect();
    std::vector<std::thread> questioners;
    for (unsigned i = 0; i < kQuestioners; ++i) questioners.emplace_back(ask_on, Random(i));
    for (char order = 0; order != 'f'; order = gShared->order) {
        if (order == 't') {
            // Only without what the C library keeps for later does the memory of the process tell
            // what is in use. It gives back all of the first of its arenas only, so it has no
            // other.
            ::malloc_trim(0);
        } else if (order == 'l' || gLost) {
            if (order == 0) terminate_sessions();
            take_leave(id);
            id = connect();
        }
        if (order != 0) gShared->order = 0;
        std::this_thread::sleep_for(1ms);
    }
    for (std::thread& thread : questioners) thread.join();
    take_leave(id);
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

void complain(const char* what, int id) {
    std::fprintf(stderr, "%s, service id %d\n", what, id);
    ++gShared->wrong_lives;
}

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
    if (was_over || over) complain("a callback got released user data", id);
    return 0;
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
        is_accepted = offer(id, ++gShared->last_opcode, on_state_of_life, &life, kExecCallbacks[0]);
    }
    if (was_over && is_accepted) complain("an id that is over was accepted", id);
}

void call_on(Random random) {
    for (; gShared->order != 'f'; ++gShared->calls) {
        const auto begin = Clock::now();
        call_anything(random);
        if (Clock::now() - begin > 10s) complain("a call took too long", 0);
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

std::size_t count_threads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

}  // namespace

void run_service(Shared& shared, unsigned seed) {
    gShared = &shared;
    ::mallopt(M_ARENA_MAX, 1);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    __android_log_set_logger(watch_log);
    std::thread([] {}).join();  // with the first, a sanitizer starts one of its own
    const std::size_t own_threads = count_threads();
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
