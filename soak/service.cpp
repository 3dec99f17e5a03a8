// The service process of the soak test. It knows the library by its public header only.
//
// Orders are letters: 'd' and 'p' to take leave of the Manager and start over on the dedicated and
// on the plain socket, 't' to give back the memory that is not in use, 'f' to finish. Standard
// error gets what should not be. With a seed as argument the process takes chances instead.

#include "service.h"

#include <android-base/properties.h>
#include <android/log.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "fuzz/argument_reader.h"

namespace soak {

Shared& gShared = *static_cast<Shared*>(
    ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, 3, 0));

namespace {

using namespace std::chrono_literals;

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
        ++gShared.lost[tTransaction];
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
    ++gShared.ran[tTransaction];
    if (args.func_name == "rejected") ++gShared.rejected_ran;
    std::this_thread::sleep_for(std::chrono::milliseconds(number_after(args.func_name, kNap)));
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
    gShared.notices[number] += 1U << 4 * (service - kServices.data());
}

// Counts in `now` what may follow only on what is counted in `before`.
void count(Counter& now, const Counter& before) {
    if (++now > before) ++gShared.wrong_sessions;
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
            if (is_refused_session(session)) return -1;
            ++gShared.starts[session];
            return 0;
        case VEXA_STATUS_SESSION_READY:
            count(gShared.readies[session], gShared.starts[session]);
            return 0;
        case VEXA_STATUS_SESSION_END:
            count(gShared.ends[session], gShared.starts[session]);
            return 0;
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

enum class Outcome { kAnswered, kUnanswered, kWrong };

template <class Answer>
Outcome judge(const Answer& answer, const Answer& expected, const Answer& unsent) {
    if (answer == expected) return Outcome::kAnswered;
    return answer.empty() || answer == unsent ? Outcome::kUnanswered : Outcome::kWrong;
}

Outcome ask(std::mt19937& random) {
    std::vector<std::string> names;
    std::vector<std::string> infos;
    std::vector<bool> granted;
    for (auto left = 1 + random() % 4; left > 0; --left) {
        const std::uint64_t number = random() % kNames;
        names.push_back(name_of(number));
        infos.push_back(info_text(number));
        granted.push_back(is_granted(number));
        std::string value;
        const int result = parse_result_of_query_info(infos.back(), value);
        const bool right = value == info_value(number) && result == (number % 5 == 0 ? -1 : 0);
        if (!right) return Outcome::kWrong;
    }
    const auto session = static_cast<unsigned>(random());
    const auto kind = random() % 3;
    if (kind == 0) return judge(vexa_permission_query(session, names), granted, {});
    const auto query = kind == 1 ? vexa_info_query : vexa_info_monitor;
    return judge(query(session, names), infos, std::vector<std::string>(names.size()));
}

// Only a time without the Manager excuses that there is no answer.
Outcome ask_and_count(std::mt19937& random) {
    const std::uint32_t before = gShared.disturbances;
    const Outcome outcome = ask(random);
    const bool is_excused = before % 2 == 1 || before != gShared.disturbances;
    ++gShared.queries;
    if (outcome == Outcome::kAnswered) {
        ++gShared.answered_queries;
    } else if (outcome == Outcome::kWrong || !is_excused) {
        ++gShared.wrong_queries;
    }
    return outcome;
}

// 0 is the result of a send; the log gives another when nothing is to be sent.
void log_marker(unsigned questioner) {
    Counter& sent = gShared.markers.at(questioner);
    const auto text =
        std::string(kMarkerPrefix) + std::to_string(kQuestioners * (sent + 1) + questioner);
    if (vexa_log_marker(text.c_str()) == 0) ++sent;
}

void ask_on(unsigned questioner) {
    std::mt19937 random(questioner);
    while (!gStopping) {
        auto outcome = Outcome::kAnswered;
        if (gConnected || random() % kAskedInVain == 0) outcome = ask_and_count(random);
        if (random() % kMarkerInterval == 0) log_marker(questioner);
        const bool goes_well = gConnected && outcome == Outcome::kAnswered;
        std::this_thread::sleep_for(goes_well ? 1ms : 20ms);
    }
}

// ---- The course

// The callback is set anew so that what was lost and given up in the meantime says so.
void take_leave(int id) {
    gConnected = false;
    const int result = vexa_svc_deinit(static_cast<std::uint32_t>(id));
    if (result != 0) std::fprintf(stderr, "vexa_svc_deinit: %d\n", result);
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    gLost = false;
}

// Returns the service id, -1 if the Manager could not be reached.
int introduce() {
    const int id = vexa_svc_init();
    if (id < 0) return -1;
    for (std::size_t i = 0; i < kServices.size(); ++i) {
        auto* const user_data = const_cast<Service*>(&kServices[i]);
        const auto own_id = static_cast<std::uint32_t>(id);
        if (offer(own_id, kServices[i], on_state, user_data, kExecCallbacks[i]) == 0) continue;
        take_leave(id);
        return -1;
    }
    return id;
}

int connect() {
    int id = introduce();
    for (auto pause = 10ms; id < 0; id = introduce()) {
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, 200ms);
    }
    gConnected = true;
    ++gShared.ready;
    return id;
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

int offer(std::uint32_t id, const Service& service, vexa_state_callback_t on_state, void* user_data,
          vexon_exec_callback_t on_task) {
    char opcode[9];
    std::snprintf(opcode, sizeof(opcode), "%x", service.opcode);
    std::string text;
    for (std::uint32_t subsystem = 1; subsystem <= service.subsystems; ++subsystem) {
        text += (text.empty() ? R"({"id":)" : R"(,{"id":)") + std::to_string(subsystem) + "}";
    }
    text = std::string("\x02{\"Vexon\":{\"opcode\":\"") + opcode + R"(","subsystems":[)" + text +
           "]}}";
    const auto* const api = reinterpret_cast<const std::uint8_t*>(text.c_str());
    const int result = _vexa_svc_register_auth(id, service.opcode, api, "soak");
    if (result != 0) return result;
    return _vexa_svc_ready(id, service.opcode, on_state, user_data, on_task);
}

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
