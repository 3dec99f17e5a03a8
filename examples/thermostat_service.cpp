// A room thermostat that other programs reach through the Manager: an example of a service process.

#include <unistd.h>
#include <vexon2_0.h>
#include <vexon2_0_arguments.h>
#include <vexon2_0_reply.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::uint32_t kOpcode = 0x1a;
constexpr char kToken[] = "thermostat";

// The "opcode" is kOpcode in hexadecimal.
constexpr char kApiDefinition[] =
    "\x01VEXON\x01\x02"
    R"({"Vexon":{
  "opcode":"1a","name":"thermostat","subsystems":[{"id":1}],
  "functions":[
    {"name":"set_target","args":[{"id":0,"name":"celsius","type":"double"}]},
    {"name":"set_locked","args":[{"id":0,"name":"locked","type":"boolean"}]},
    {"name":"set_period","args":[{"id":0,"name":"period","type":"struct","members":[
      {"id":0,"name":"from_hour","type":"uint8"},{"id":1,"name":"to_hour","type":"uint8"},
      {"id":2,"name":"celsius","type":"double"}]}]},
    {"name":"calibrate","args":[
      {"id":0,"name":"reference_celsius","type":"vector","vec_type":"double"}]},
    {"name":"measure","args":[]},
    {"name":"read_outdoor","args":[]}]}})";

struct Thermostat {
    std::mutex mutex;  // for all but `measuring`
    bool locked = false;
    double room_celsius = 18;
    double target_celsius = 20;
    double sensor_error = 0;
    std::array<double, 24> schedule{};  // by the hour, 0: not heated
    std::atomic<int> measuring{0};
};

// Never destroyed: a task may still run when main() returns.
Thermostat& gThermostat = *new Thermostat;

// Prints the line as a whole, so that lines of several threads do not mix.
void say(const std::string& text) {
    std::fputs(("thermostat: " + text + "\n").c_str(), stdout);
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// The functions: each returns its reply

// The "return" of a reply; its "status" is 0 for kDone and -1 for the others.
enum ReturnValue { kDone = 0, kNoFunction = -1, kBadArgument = -2, kRefused = -3, kBroken = -4 };

struct CallError : std::runtime_error {
    CallError(ReturnValue value, const std::string& text)
        : std::runtime_error(text), return_value(value) {}

    ReturnValue return_value;
};

struct Task {
    unsigned session_id;
    const vexon_func_call_info_t& arguments;
};

// Returns the argument, or the member of a struct argument, with this key.
template <class T, class From>
const vexon::Held<T>& get(const From& from, int key) {
    if (const auto* value = vexon::get<T>(from, key)) return *value;
    const bool is_missing = vexon::tag_of(from, key) == VEXON_TYPE_NONE;
    throw CallError(kBadArgument, "argument " + std::to_string(key) +
                                      (is_missing ? " is missing" : " is of a wrong type"));
}

void require(bool condition, const char* otherwise) {
    if (!condition) throw CallError(kRefused, otherwise);
}

void require_celsius(double celsius) {
    require(celsius >= 5 && celsius <= 30, "only 5 to 30 degrees are possible");
}

// Asks the Manager, who knows whether the session's user may do so.
void require_permission(const Task& task, const std::string& permission) {
    const std::vector<bool> granted = vexa_permission_query(task.session_id, {permission});
    require(granted.size() == 1 && granted[0], "the permission is missing");
}

vexon::Reply set_locked(const Task& task) {
    require_permission(task, "LOCK_THERMOSTAT");
    const bool locked = get<bool>(task.arguments, 0);
    const std::lock_guard lock(gThermostat.mutex);
    gThermostat.locked = locked;
    return vexon::Reply().add("locked", locked);
}

vexon::Reply set_target(const Task& task) {
    const double celsius = get<double>(task.arguments, 0);
    require_celsius(celsius);
    const std::lock_guard lock(gThermostat.mutex);
    require(!gThermostat.locked, "the thermostat is locked");
    gThermostat.target_celsius = celsius;
    return vexon::Reply().add("target", celsius);
}

vexon::Reply set_period(const Task& task) {
    const auto& period = get<vexon::Struct>(task.arguments, 0);
    const auto from_hour = get<unsigned char>(period, 0);
    const auto to_hour = get<unsigned char>(period, 1);
    const double celsius = get<double>(period, 2);
    require(from_hour < to_hour && to_hour <= 24, "there is no such period");
    require_celsius(celsius);
    const std::lock_guard lock(gThermostat.mutex);
    require(!gThermostat.locked, "the thermostat is locked");
    auto& schedule = gThermostat.schedule;
    std::fill(schedule.begin() + from_hour, schedule.begin() + to_hour, celsius);
    return vexon::Reply().add("heated_hours", 24 - std::count(schedule.begin(), schedule.end(), 0));
}

vexon::Reply calibrate(const Task& task) {
    const auto& references = get<std::vector<double>>(task.arguments, 0);
    require(!references.empty(), "there is no reference");
    for (const double reference : references) require_celsius(reference);
    const double sum = std::accumulate(references.begin(), references.end(), 0.0);
    const std::lock_guard lock(gThermostat.mutex);
    gThermostat.sensor_error =
        gThermostat.room_celsius - sum / static_cast<double>(references.size());
    return vexon::Reply().add("sensor_error", gThermostat.sensor_error);
}

// Takes its time, in which other tasks run: it holds no lock while it waits.
vexon::Reply measure(const Task&) {
    const int at_once = ++gThermostat.measuring;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    --gThermostat.measuring;
    const std::lock_guard lock(gThermostat.mutex);
    gThermostat.room_celsius += (gThermostat.target_celsius - gThermostat.room_celsius) / 4;
    return vexon::Reply()
        .add("celsius", gThermostat.room_celsius - gThermostat.sensor_error)
        .add("at_once", at_once);
}

vexon::Reply read_outdoor(const Task& task) {
    const auto answers = vexa_info_query(task.session_id, {"outdoor_celsius"});
    std::string celsius;
    require(!answers.empty() && parse_result_of_query_info(answers[0], celsius) == 0,
            "the temperature is not known");
    return vexon::Reply().add("celsius", std::stod(celsius));
}

struct Function {
    const char* name;
    vexon::Reply (*run)(const Task& task);
};

constexpr Function kFunctions[] = {{"set_target", set_target}, {"set_locked", set_locked},
                                   {"set_period", set_period}, {"calibrate", calibrate},
                                   {"measure", measure},       {"read_outdoor", read_outdoor}};

const Function& find_function(const std::string& name) {
    for (const Function& function : kFunctions) {
        if (function.name == name) return function;
    }
    throw CallError(kNoFunction, "there is no such function");
}

// ---------------------------------------------------------------------------------------------
// The callbacks

void fill(_vexon_call_info_t* call, ReturnValue value, const vexon::Reply& reply) {
    call->status = value == kDone ? 0 : -1;
    call->return_value = value;
    call->func = reply.text();
    say(call->name + " answers " + call->func);
}

int on_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    call->opcode = "0x1a";
    // Not the name that was asked for, which may hold characters that a reply must not hold.
    call->name = "unknown";
    try {
        const Function& function = find_function(args.func_name);
        call->name = function.name;
        fill(call, kDone, function.run({call->session_id, args}));
    } catch (const CallError& error) {
        fill(call, error.return_value, vexon::Reply().add("error", error.what()));
    } catch (const std::exception&) {
        fill(call, kBroken, vexon::Reply().add("error", "internal error"));
    }
    return 0;
}

std::string describe(const vexa_req_t& request) {
    const std::string session = "session " + std::to_string(request.session_id);
    switch (request.status) {
        case VEXA_STATUS_TERMINATED:
            return "the Manager is gone";
        case VEXA_STATUS_RECONNECTED:
            return "the Manager is back";
        case VEXA_STATUS_SESSION_START:
            return session + " may start";
        case VEXA_STATUS_SESSION_READY:
            return session + " is ready";
        case VEXA_STATUS_SESSION_END:
            return session + " ends";
        case VEXA_STATUS_PERMISSION_CHANGE:
            return "permission " + request.permission +
                   (request.permission_status == 0 ? " withdrawn" : " granted");
        default:
            return request.state;
    }
}

int on_state(int, vexa_req_t* request, void*) {
    say(describe(*request));
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Staying in service

constexpr int kStartOver = SIGUSR1;
constexpr std::chrono::milliseconds kFirstPause(100);
constexpr std::chrono::milliseconds kLongestPause(5000);

// Whatever the cause: what it takes to be served again waits for the Manager, which cannot be done
// here.
void on_receive_end(vexa_receive_end_t reason, void*) {
    const bool was_ended_here =
        reason == VEXA_RECEIVE_END_DISCONNECTED || reason == VEXA_RECEIVE_END_CLOSED;
    if (!was_ended_here) kill(getpid(), kStartOver);
}

sigset_t set_of(std::initializer_list<int> numbers) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : numbers) sigaddset(&signals, signal);
    return signals;
}

const sigset_t kEnding = set_of({SIGINT, SIGTERM});
const sigset_t kAll = set_of({SIGINT, SIGTERM, kStartOver});

// Returns the first of the signals that comes within the time, 0 if none does.
int wait_for(const sigset_t& signals, std::chrono::milliseconds time) {
    const timespec limit{time.count() / 1000, time.count() % 1000 * 1'000'000};
    return std::max(sigtimedwait(&signals, nullptr, &limit), 0);
}

// Returns the id under which the service may be called from now on, or -1.
int offer() {
    const int id = vexa_svc_init();
    const auto service_id = static_cast<std::uint32_t>(id);
    const auto* definition = reinterpret_cast<const std::uint8_t*>(kApiDefinition);
    const bool ready = id >= 0 &&
                       _vexa_svc_register_auth(service_id, kOpcode, definition, kToken) == 0 &&
                       _vexa_svc_ready(service_id, kOpcode, on_state, nullptr, on_task) == 0;
    if (ready) return id;
    vexa_svc_deinit(service_id);
    return -1;
}

// Tries until the Manager takes the service. Returns the id, or -1 when a signal ends the service.
int offer_until_taken() {
    for (auto pause = kFirstPause; true; pause = std::min(2 * pause, kLongestPause)) {
        const int id = offer();
        if (id >= 0) return id;
        say("cannot serve yet");
        if (wait_for(kEnding, pause) != 0) return -1;
        wait_for(set_of({kStartOver}), std::chrono::milliseconds(0));  // of an attempt that failed
    }
}

// Serves until the connection is lost or a signal ends the service. Returns whether to go on.
bool serve() {
    const int id = offer_until_taken();
    if (id < 0) return false;
    say("ready as service " + std::to_string(id));
    int signal = 0;
    sigwait(&kAll, &signal);
    say(signal == kStartOver ? "starting over" : "ending");
    terminate_sessions();  // the next Manager knows nothing of them
    vexa_svc_deinit(static_cast<std::uint32_t>(id));
    return signal == kStartOver;
}

}  // namespace

int main() {
    pthread_sigmask(SIG_BLOCK, &kAll, nullptr);  // threads inherit what is blocked
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    while (serve()) {
    }
}
