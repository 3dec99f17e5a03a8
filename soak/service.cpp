// The service process of the soak test. It knows the library by its public header only.
//
// Orders are letters: 'd' and 'p' to take leave of the Manager and start over on the dedicated and
// on the plain socket, 't' to give back the memory that is not in use, 'f' to finish. Standard
// error gets what should not be. With a seed as argument the process takes chances instead: several
// threads call the library at random, with the id that the process has and with ids that it had,
// while the Manager does what it likes.

#include "contract.h"

#include <android-base/properties.h>
#include <android/log.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <vexon2_0.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "fuzz/argument_reader.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

Shared& gShared = *static_cast<Shared*>(
    ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, 3, 0));

constexpr unsigned kAskedInVain = 16;    // one of so many questions while there is no Manager
constexpr unsigned kMarkerInterval = 8;  // questions of a thread

std::atomic<bool> gConnected{false};
std::atomic<bool> gLost{false};
std::atomic<bool> gStopping{false};

// The transaction of the task that this thread runs.
thread_local std::uint64_t tTransaction = 0;

// The lines would be many gigabytes. Two matters are told nowhere else: that a reply could not be
// sent, which is said on the thread that ran the task, and that a session is known without having
// the service of a task.
void watch_log(const __android_logger_data*, const char* text) {
    const std::string_view line = text;
    if (tTransaction != 0 && line.rfind("client NOT able to send msg", 0) == 0) {
        ++gShared.tasks[tTransaction][kNotSent];
    } else if (line.rfind("No Session ", 0) == 0 &&
               line.substr(line.size() - kEndedProbe.size()) == kEndedProbe) {
        ++gShared.wrong_sessions;
    }
}

// ---- Callbacks

// The arguments and their types as the service sees them.
std::uint64_t digest_of(const vexon_func_call_info_t& args) {
    std::string text = read_arguments(args);
    if (args.type_queue == nullptr) return hash_of(text);
    for (const auto& [key, value] : *args.type_queue) text += std::to_string(value.first) + ' ';
    return hash_of(text);
}

template <std::size_t service>
int run_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    tTransaction = static_cast<std::uint32_t>(call->transac_id);
    ++gShared.tasks[tTransaction][kRan];
    if (args.func_name == "rejected") ++gShared.rejected_ran;
    std::this_thread::sleep_for(std::chrono::milliseconds(nap_of(tTransaction)));
    call->opcode = std::to_string(kServices[service].opcode);
    call->name = args.func_name;
    call->func = "\"digest\":\"" + std::to_string(digest_of(args)) + "\"";
    call->return_value = args.num_of_args;
    return 0;
}

constexpr vexon_exec_callback_t kExecCallbacks[] = {run_task<0>, run_task<1>, run_task<2>};
static_assert(std::size(kExecCallbacks) == kServices.size());

void count_notice(const vexa_req_t& request, const Service* service) {
    constexpr vexa_status_t kKinds[] = {VEXA_STATUS_PERMISSION_CHANGE, VEXA_STATUS_STATE_CHANGE,
                                        VEXA_STATUS_SYSTEM_SETTING_CHANGE};
    const std::uint64_t number = number_after(request.permission + request.state, kNoticePrefix);
    const Notice notice = notice_of(number);
    const bool named = notice.kind == 0 ? request.permission == notice.name &&
                                              request.permission_status == (notice.granted ? 1 : 0)
                                        : request.state == notice.name + ":" + notice.value;
    const bool right = named && request.status == kKinds[notice.kind] &&
                       request.session_id == notice.session && request.package == notice.package;
    if (!right) ++gShared.wrong_notices;
    ++gShared.notices[number].at(static_cast<std::size_t>(service - kServices.data()));
}

// What becomes of a session may follow only on its start.
int count_session(std::uint32_t session, Event event) {
    Tally& tally = gShared.sessions[session];
    if (++tally[event] > tally[kStarted]) ++gShared.wrong_sessions;
    return 0;
}

int on_state(int, vexa_req_t* request, void* user_data) {
    const std::uint32_t session = request->session_id;
    switch (request->status) {
        case VEXA_STATUS_TERMINATED:
            gConnected = false;
            ++gShared.losses;
            return 0;
        case VEXA_STATUS_RECONNECTED:
            ++gShared.returns;
            return 0;
        case VEXA_STATUS_SESSION_START:
            return is_refused_session(session) ? -1 : count_session(session, kStarted);
        case VEXA_STATUS_SESSION_READY:
            return count_session(session, kReady);
        case VEXA_STATUS_SESSION_END:
            return count_session(session, kEnded);
        default:
            count_notice(*request, static_cast<const Service*>(user_data));
            return 0;
    }
}

void on_receive_end(vexa_receive_end_t reason, void*) {
    ++gShared.receive_ends.at(static_cast<std::size_t>(reason));
    if (reason != VEXA_RECEIVE_END_DISCONNECTED) gLost = true;
}

// ---- Questions and markers

// Counts the answer to a question. Only a time without the Manager, as by the disturbances before
// the question, excuses that there is none. Returns whether it is the right one.
template <class Answer>
bool judge(const Answer& answer, const Answer& expected, const Answer& unsent,
           std::uint32_t before) {
    const bool is_excused = before % 2 == 1 || before != gShared.disturbances;
    const bool is_right = answer == expected;
    const bool is_none = answer.empty() || answer == unsent;
    ++gShared.queries;
    gShared.answered_queries += is_right;
    gShared.wrong_queries += !is_right && !(is_none && is_excused);
    return is_right;
}

bool ask(Random& random) {
    std::vector<std::string> names;
    std::vector<std::string> infos;
    std::vector<bool> granted;
    for (auto left = 1 + random() % 4; left > 0; --left) {
        const Name name{random() % Name::kCount};
        names.push_back(name.text());
        infos.push_back(name.info());
        granted.push_back(name.is_granted());
        std::string value;
        const int result = parse_result_of_query_info(infos.back(), value);
        const bool is_right = value == name.value() && result == (name.is_known() ? 0 : -1);
        gShared.wrong_queries += !is_right;
    }
    const auto session = static_cast<unsigned>(random());
    const auto kind = random() % 3;
    const std::uint32_t before = gShared.disturbances;
    if (kind == 0) return judge(vexa_permission_query(session, names), granted, {}, before);
    const auto query = kind == 1 ? vexa_info_query : vexa_info_monitor;
    return judge(query(session, names), infos, std::vector<std::string>(names.size()), before);
}

// 0 is the result of a send; the log gives another when nothing is to be sent.
void log_marker(unsigned questioner) {
    Counter& sent = gShared.markers.at(questioner);
    const auto text =
        std::string(kMarkerPrefix) + std::to_string(kQuestioners * (sent + 1) + questioner);
    if (vexa_log_marker(text.c_str()) == 0) ++sent;
}

void ask_on(unsigned questioner) {
    Random random(questioner);
    while (!gStopping) {
        bool goes_well = gConnected;
        if (goes_well || random() % kAskedInVain == 0) goes_well = ask(random) && goes_well;
        if (random() % kMarkerInterval == 0) log_marker(questioner);
        std::this_thread::sleep_for(goes_well ? 1ms : 20ms);
    }
}

// ---- The course

// Registers a service and declares it ready. Returns 0 or what the library did.
int offer(std::uint32_t id, const Service& service, vexa_state_callback_t on_state, void* user_data,
          vexon_exec_callback_t on_task) {
    std::ostringstream definition;
    definition << "\x02{\"Vexon\":{\"opcode\":\"" << std::hex << service.opcode
               << R"(","subsystems":[)";
    for (std::uint32_t subsystem = 1; subsystem <= service.subsystems; ++subsystem) {
        definition << (subsystem == 1 ? R"({"id":)" : R"(,{"id":)") << subsystem << '}';
    }
    const std::string text = definition.str() + "]}}";
    const auto* const api = reinterpret_cast<const std::uint8_t*>(text.c_str());
    const int result = _vexa_svc_register_auth(id, service.opcode, api, "soak");
    if (result != 0) return result;
    return _vexa_svc_ready(id, service.opcode, on_state, user_data, on_task);
}

// The callback is set anew so that what was lost and given up in the meantime says so.
void take_leave(int id) {
    gConnected = false;
    const int result = vexa_svc_deinit(static_cast<std::uint32_t>(id));
    if (result != 0) std::fprintf(stderr, "vexa_svc_deinit: %d\n", result);
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    gLost = false;
}

// Tries until the Manager can be reached. Returns the service id.
int connect() {
    while (true) {
        const int id = vexa_svc_init();
        bool is_ready = id >= 0;
        for (std::size_t i = 0; is_ready && i < kServices.size(); ++i) {
            is_ready = offer(static_cast<std::uint32_t>(id), kServices[i], on_state,
                             const_cast<Service*>(&kServices[i]), kExecCallbacks[i]) == 0;
        }
        if (is_ready) {
            gConnected = true;
            ++gShared.ready;
            return id;
        }
        if (id >= 0) take_leave(id);
        std::this_thread::sleep_for(50ms);
    }
}

// The service is the designated one by the name of the thread that connects, see main().
void choose_socket(bool dedicated) {
    android::base::SetProperty("vendor.vexon.one.service",
                               dedicated ? "vendor.mirt.soak" : "vendor.mirt.other");
}

int carry_out(char order, int id) {
    if (order == 't') {
        // The C library keeps what was released for the next time. Only without that does the
        // memory of the process tell what is in use. It gives all back from the first of its
        // arenas only, so main() makes it use no other.
        ::malloc_trim(0);
        return id;
    }
    if (order == 0) {
        terminate_sessions();
    } else {
        choose_socket(order == 'd');
    }
    take_leave(id);
    return connect();
}

void serve() {
    android::base::SetProperty("ro.build.type", "userdebug");
    android::base::SetProperty("vendor.vexon.one.markers", "true");
    choose_socket(false);
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    int id = connect();
    std::vector<std::thread> questioners;
    for (unsigned i = 0; i < kQuestioners; ++i) questioners.emplace_back(ask_on, i);
    for (char order = 0; order != 'f'; order = gShared.order) {
        if (order != 0 || gLost) id = carry_out(order, id);
        if (order != 0) gShared.order = 0;
        std::this_thread::sleep_for(1ms);
    }
    gStopping = true;
    for (std::thread& thread : questioners) thread.join();
    take_leave(id);
}

// ---- Rounds of chance. Each call has to return soon, an id that is over must not be accepted, and
// no callback may get the user data of a life that is over. What else goes wrong, and that a call
// never returns, the Manager's side sees.

constexpr unsigned kThreads = 6;
constexpr unsigned kOldIds = 5;  // one of so many calls has any id instead of the latest
constexpr auto kCallLimit = 10s;

// What lies between an id from the Manager and the end of vexa_svc_deinit() for it.
struct Life {
    std::uint32_t id;
    std::atomic<bool> over{false};
};

// Never destroyed: threads of the library may still run when main() returns.
std::mutex& gMutex = *new std::mutex;
std::vector<Life*>& gLives = *new std::vector<Life*>{new Life{999'999'999, {true}}};  // by gMutex

void complain(const char* what, std::uint32_t id) {
    std::fprintf(stderr, "%s, service id %u\n", what, id);
}

Life& life_of(std::uint32_t id) {
    const std::lock_guard lock(gMutex);
    for (Life* const life : gLives) {
        if (life->id == id) return *life;
    }
    ++gShared.lives;
    return *gLives.emplace_back(new Life{id, {false}});
}

Life& any_life(Random& random) {
    const std::lock_guard lock(gMutex);
    return *(random() % kOldIds == 0 ? gLives[random() % gLives.size()] : gLives.back());
}

int on_state_of_life(int, vexa_req_t*, void* user_data) {
    const Life& life = *static_cast<const Life*>(user_data);
    const bool was_over = life.over;
    std::this_thread::yield();
    if (was_over || life.over) complain("a callback got released user data", life.id);
    return 0;
}

int on_any_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    call->name = args.func_name;
    return 0;
}

// An opcode is used once: a second time might wait for ever.
void call_with_id(Random& random) {
    static std::atomic<std::uint32_t> opcode{0x1000};
    Life& life = any_life(random);
    const bool was_over = life.over;
    const bool leaves = random() % 4 == 0;
    const int result = leaves ? vexa_svc_deinit(life.id)
                              : offer(life.id, {++opcode, 1}, on_state_of_life, &life, on_any_task);
    if (was_over && result >= 0) complain("an id that is over was accepted", life.id);
    if (leaves && result == 0) life.over = true;
}

void call_anything(Random& random) {
    const auto what = random() % 16;
    if (what == 0) {
        vexa_info_query(1, {"any"});
    } else if (what == 1) {
        vexa_permission_query(1, {"any"});
    } else if (what == 2) {
        vexa_send_to_manager_raw(std::string(1 + random() % 60'000, 'x').c_str());
    } else if (what < 8) {
        if (const int id = vexa_svc_init(); id >= 0) life_of(static_cast<std::uint32_t>(id));
    } else {
        call_with_id(random);
    }
}

void call_on(Random random) {
    for (; gShared.order != 'f'; ++gShared.calls) {
        const auto begin = Clock::now();
        call_anything(random);
        if (Clock::now() - begin > kCallLimit) complain("a call took too long", 0);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    }
}

void take_chances(unsigned long seed) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) threads.emplace_back(call_on, Random(++seed));
    for (std::thread& thread : threads) thread.join();
    for (Life* const life : gLives) vexa_svc_deinit(life->id);
}

// ---- The process

std::size_t count_threads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

// The library's threads end by themselves. One that is on its way out when the process exits would
// look like a leak of what it holds.
void await_threads(std::size_t count) {
    for (int left = 10'000; count_threads() > count && left > 0; --left) {
        std::this_thread::sleep_for(1ms);
    }
    if (count_threads() > count) std::fprintf(stderr, "threads of the library are left\n");
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
    ::mallopt(M_ARENA_MAX, 1);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_NAME, "mirt_soak");
    __android_log_set_logger(soak::watch_log);
    std::thread([] {}).join();  // with the first, a sanitizer starts one of its own
    const std::size_t threads = soak::count_threads();
    if (argc > 1) {
        soak::take_chances(std::strtoul(argv[1], nullptr, 10));
    } else {
        soak::serve();
    }
    soak::await_threads(threads);
}
