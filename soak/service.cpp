// The service process of the soak test. It knows the library by its public header only.
//
// Standard input: a letter per order, 'd' and 'p' to take leave of the Manager and start over on
// the dedicated and on the plain socket, 't' to give back the memory that is not in use; the end of
// the input ends the process. Standard output: records. Standard error: what should not be.

#include <android-base/properties.h>
#include <android/log.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "contract.h"
#include "questions.h"
#include "rendering.h"
#include "reporting.h"

namespace soak {
namespace {

using namespace std::chrono_literals;

constexpr int kQuestioners = 8;
constexpr auto kRetryPause = 20ms;
constexpr auto kThreadsLimit = 10s;

enum class Order { kStartOverDedicated, kStartOverPlain, kTrim, kReconnected, kFinish };

// Orders that wait to be carried out by the main thread.
class Orders {
  public:
    void add(Order order) {
        const std::lock_guard lock(mutex_);
        orders_.push_back(order);
        added_.notify_one();
    }

    Order take() {
        std::unique_lock lock(mutex_);
        added_.wait(lock, [this] { return !orders_.empty(); });
        const Order order = orders_.front();
        orders_.pop_front();
        return order;
    }

    // A connection that was given up in the meantime needs no care any more.
    void forget_reconnections() {
        const std::lock_guard lock(mutex_);
        orders_.erase(std::remove(orders_.begin(), orders_.end(), Order::kReconnected),
                      orders_.end());
    }

  private:
    std::mutex mutex_;
    std::condition_variable added_;
    std::deque<Order> orders_;
};

// Never destroyed: threads of the library may still run when main() returns.
Orders& gOrders = *new Orders;
std::atomic<bool>& gConnected = *new std::atomic<bool>(false);

// The transaction of the task that this thread runs.
thread_local std::uint32_t tTransaction = 0;

// ---------------------------------------------------------------------------------------------
// The library's log

bool begins_with(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

bool ends_with(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The lines would be many gigabytes. Two matters are told nowhere else: that a reply could not be
// sent, which is said on the thread that ran the task, and that a session is known without having
// the service of a task.
void watch_log(const __android_logger_data*, const char* line) {
    if (tTransaction != 0 && begins_with(line, "client NOT able to send msg")) {
        report({RecordKind::kReplyLost, 0, tTransaction});
    } else if (begins_with(line, "No Session ") && ends_with(line, kEndedProbe)) {
        report({RecordKind::kStillInTable});
    }
}

// ---------------------------------------------------------------------------------------------
// Callbacks

void take_time(const std::string& function) {
    if (function.compare(0, kNap.size(), kNap) != 0) return;
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::atoi(function.c_str() + kNap.size())));
}

template <std::size_t service>
int run_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    tTransaction = static_cast<std::uint32_t>(call->transac_id);
    report({RecordKind::kTaskRan, 0, tTransaction});
    take_time(args.func_name);
    call->opcode = std::to_string(kServices[service].opcode);
    call->name = args.func_name;
    call->func = "\"digest\":\"" + std::to_string(hash_of(args.func_name + render(args))) + "\"";
    call->return_value = args.num_of_args;
    return 0;
}

constexpr vexon_exec_callback_t kExecCallbacks[] = {run_task<0>, run_task<1>, run_task<2>};
static_assert(std::size(kExecCallbacks) == kServices.size());

bool fits(const vexa_req_t& request, const Notice& notice) {
    if (request.session_id != notice.session || request.package != notice.package) return false;
    switch (notice.kind) {
        case NoticeKind::kPermission:
            return request.status == VEXA_STATUS_PERMISSION_CHANGE &&
                   request.permission == notice.name &&
                   request.permission_status == (notice.granted ? 1 : 0);
        case NoticeKind::kState:
            return request.status == VEXA_STATUS_STATE_CHANGE &&
                   request.state == notice.name + ":" + notice.value;
        default:
            return request.status == VEXA_STATUS_SYSTEM_SETTING_CHANGE &&
                   request.state == notice.name + ":" + notice.value;
    }
}

void report_notice(const vexa_req_t& request, std::uint32_t service) {
    const std::string& text = request.permission.empty() ? request.state : request.permission;
    const std::size_t digits = std::min(kNoticePrefix.size(), text.size());
    const std::uint64_t number = std::strtoull(text.c_str() + digits, nullptr, 10);
    const bool right = fits(request, notice_of(number));
    report({right ? RecordKind::kNotice : RecordKind::kWrongNotice, service, number});
}

void report_session(const vexa_req_t& request) {
    const std::uint64_t service = std::uint64_t{request.opcode} << 32 | request.subsys_id;
    report({RecordKind::kSession, static_cast<std::uint32_t>(request.status), request.session_id,
            service});
}

int on_state(int, vexa_req_t* request, void* user_data) {
    const auto service = static_cast<const Service*>(user_data) - kServices.data();
    switch (request->status) {
        case VEXA_STATUS_TERMINATED:
            gConnected = false;
            report({RecordKind::kTerminated});
            return 0;
        case VEXA_STATUS_RECONNECTED:
            report({RecordKind::kReconnected});
            gOrders.add(Order::kReconnected);
            return 0;
        case VEXA_STATUS_SESSION_START:
            if (is_refused_session(request->session_id)) return -1;
            report_session(*request);
            return 0;
        case VEXA_STATUS_SESSION_READY:
        case VEXA_STATUS_SESSION_END:
            report_session(*request);
            return 0;
        default:
            report_notice(*request, static_cast<std::uint32_t>(service));
            return 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Connections

std::string definition(const Service& service) {
    char opcode[9];
    std::snprintf(opcode, sizeof(opcode), "%x", service.opcode);
    std::string text =
        std::string("\x02{\"Vexon\":{\"opcode\":\"") + opcode + "\",\"subsystems\":[";
    for (std::uint32_t id = 1; id <= service.subsystems; ++id) {
        text += (id == 1 ? "{\"id\":" : ",{\"id\":") + std::to_string(id) + "}";
    }
    return text + "]}}";
}

bool offer(std::uint32_t id, std::size_t index) {
    const Service& service = kServices[index];
    const std::string text = definition(service);
    const auto* api = reinterpret_cast<const std::uint8_t*>(text.c_str());
    auto* user_data = const_cast<Service*>(&service);
    return _vexa_svc_register_auth(id, service.opcode, api, "soak") == 0 &&
           _vexa_svc_ready(id, service.opcode, on_state, user_data, kExecCallbacks[index]) == 0;
}

void take_leave(int id) {
    gConnected = false;
    const int result = vexa_svc_deinit(static_cast<std::uint32_t>(id));
    if (result != 0) std::fprintf(stderr, "vexa_svc_deinit: %d\n", result);
    gOrders.forget_reconnections();
}

// Returns the service id, -1 if the Manager could not be reached.
int introduce() {
    const int id = vexa_svc_init();
    if (id < 0) return -1;
    for (std::size_t i = 0; i < kServices.size(); ++i) {
        if (offer(static_cast<std::uint32_t>(id), i)) continue;
        take_leave(id);
        return -1;
    }
    return id;
}

int connect() {
    int id = introduce();
    for (; id < 0; id = introduce()) std::this_thread::sleep_for(kRetryPause);
    gConnected = true;
    report({RecordKind::kReady, 0, now_ns()});
    return id;
}

// The service is the designated one by the name of the thread that connects, see main().
void choose_socket(bool dedicated) {
    android::base::SetProperty("vendor.vexon.one.service",
                               dedicated ? "vendor.mirt.soak" : "vendor.mirt.other");
}

Order order_of(char letter) {
    if (letter == 't') return Order::kTrim;
    return letter == 'd' ? Order::kStartOverDedicated : Order::kStartOverPlain;
}

void read_orders() {
    char letter = 0;
    while (::read(STDIN_FILENO, &letter, 1) == 1) gOrders.add(order_of(letter));
    gOrders.add(Order::kFinish);
}

int start_over(int id, Order reason) {
    take_leave(id);
    if (reason != Order::kReconnected) choose_socket(reason == Order::kStartOverDedicated);
    return connect();
}

// The C library keeps what was released for the next time, the more the longer it goes on. Only
// without that does the memory of the process tell what is in use. It gives all back from the first
// of its arenas only, so main() makes it use no other.
void trim() {
    ::malloc_trim(0);
    report({RecordKind::kTrimmed});
}

int serve_until_finished(int id) {
    const Questioners questioners(kQuestioners, gConnected);
    for (Order order = gOrders.take(); order != Order::kFinish; order = gOrders.take()) {
        if (order == Order::kTrim) {
            trim();
        } else {
            id = start_over(id, order);
        }
    }
    return id;
}

std::size_t count_threads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

// The library's threads end by themselves. One that is on its way out when the process exits would
// look like a leak of what it holds.
void await_threads(std::size_t count) {
    const auto limit = std::chrono::steady_clock::now() + kThreadsLimit;
    while (count_threads() > count) {
        if (std::chrono::steady_clock::now() > limit) {
            std::fprintf(stderr, "threads of the library are left\n");
            return;
        }
        std::this_thread::sleep_for(1ms);
    }
}

}  // namespace
}  // namespace soak

int main() {
    ::mallopt(M_ARENA_MAX, 1);
    __android_log_set_logger(soak::watch_log);
    ::prctl(PR_SET_NAME, "mirt_soak");
    android::base::SetProperty("ro.build.type", "userdebug");
    android::base::SetProperty("vendor.vexon.one.markers", "true");
    soak::choose_socket(false);
    std::thread reader(soak::read_orders);
    const std::size_t threads = soak::count_threads();
    soak::take_leave(soak::serve_until_finished(soak::connect()));
    reader.join();
    soak::await_threads(threads - 1);
}
