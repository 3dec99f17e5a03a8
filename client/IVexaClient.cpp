#include "client/IVexaClient.h"

#include <cutils/properties.h>

#include <new>
#include <utility>

#include "client/connection.h"
#include "client/life.h"
#include "client/logging.h"
#include "client/receive.h"
#include "client/threads.h"
#include "client/utility/IVexaClient_utility.h"

const std::uint8_t VEXA_JSON_DEF_VER_ARR = 2;
std::atomic<int> gMgrSocket_fd{-1};
int gService_id = -1;
const char deliminator[4] = "[],";
std::map<std::string, vexon_data_type_t>& gDataTypes =
    *new std::map<std::string, vexon_data_type_t>(known_data_types());
std::mutex& gClientMutex = *new std::mutex;
std::set<ServiceKey>& gServices = *new std::set<ServiceKey>;
std::mutex& gServicesMutex = *new std::mutex;
std::map<std::uint32_t, SessionServices>& gSessions = *new std::map<std::uint32_t, SessionServices>;
std::mutex& gSessionsMutex = *new std::mutex;
std::mutex& gSendMutex = *new std::mutex;

// The symbol init_cv has to be the condition variable itself, yet no destructor may run for it.
extern "C" VEXON_API unsigned char init_cv_storage[] __asm__("init_cv");
alignas(std::condition_variable) unsigned char init_cv_storage[sizeof(std::condition_variable)];
[[maybe_unused]] static auto& init_cv_made = *new (init_cv_storage) std::condition_variable;

std::mutex& gInitMutex = *new std::mutex;
bool response_for_init = false;
std::mutex& gRegsMutex = *new std::mutex;
std::map<std::uint32_t, regs_meta_data>& gRegs = *new std::map<std::uint32_t, regs_meta_data>;
std::mutex& gAuthMutex = *new std::mutex;
std::map<std::uint32_t, RegsAuthMetaData>& gAuth = *new std::map<std::uint32_t, RegsAuthMetaData>;
std::mutex& gReadyMutex = *new std::mutex;
std::map<std::uint32_t, ready_meta_data>& gReady = *new std::map<std::uint32_t, ready_meta_data>;
std::mutex& gPermMutex = *new std::mutex;
std::map<std::uint32_t, permRes_meta_data_t>& gPerm =
    *new std::map<std::uint32_t, permRes_meta_data_t>;
std::mutex& gQueryIdMutex = *new std::mutex;
std::mutex& gInfoMutex = *new std::mutex;
std::map<std::uint32_t, res_infos_meta_data_t>& gInfo =
    *new std::map<std::uint32_t, res_infos_meta_data_t>;
std::atomic<int> gDebugLevel{0};
std::atomic<bool> gIsOneService{false};
std::atomic<bool> gMarkersEnabled{false};
std::atomic<bool> gInitDone{false};
std::uint32_t gQueryId = 0;

std::mutex& gInitCallMutex = *new std::mutex;
std::mutex& gConnectMutex = *new std::mutex;
AcknowledgementWaits& gAuthWaits = *new AcknowledgementWaits;
AcknowledgementWaits& gReadyWaits = *new AcknowledgementWaits;
std::shared_ptr<ManagerSocket>& gMgrSocket = *new std::shared_ptr<ManagerSocket>;
std::atomic<Life> gLife{0};
bool gLeaving = false;
std::condition_variable& gLeft = *new std::condition_variable;
std::atomic<bool> gReceiving{false};
std::mutex& gReceiveEndMutex = *new std::mutex;
std::shared_ptr<ReceiveEndObserver>& gReceiveEndObserver =
    *new std::shared_ptr<ReceiveEndObserver>(std::make_shared<ReceiveEndObserver>());
std::condition_variable& gReceiveEndReturned = *new std::condition_variable;

namespace {

// Returns the service id that the process has already, with a line that says so, or -1. An id that
// is being given up counts no more, but a callback that de-initialisation waits for cannot wait.
int existing_service_id() NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(gClientMutex);
    if (!must_not_wait()) gLeft.wait(lock, []() NO_THREAD_SAFETY_ANALYSIS { return !gLeaving; });
    const int id = gService_id;
    lock.unlock();
    if (id != -1) log_line(kAlways, " Already initialized; return existing service id %d", id);
    return id;
}

// Forgets what calls of an earlier life have left. They could not be de-initialised if the Manager
// had taken the service id back.
void clear_tables() EXCLUDES(gAuthMutex, gReadyMutex) {
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        gAuth.clear();
    }
    std::lock_guard<std::mutex> lock(gReadyMutex);
    gReady.clear();
}

// Begins a life unless one goes on whose receive thread still reads from the Manager. Returns
// whether it did. A thread that recovers an older connection, or has yet to see that it is lost,
// gives way.
bool begin_life() EXCLUDES(gInitMutex) {
    {
        std::lock_guard<std::mutex> init_lock(gInitMutex);
        if (gReceiving && is_connected()) return false;
        std::lock_guard<std::mutex> lock(gClientMutex);
        ++gLife;
        gReceiving = false;
    }
    wake_waits();
    clear_tables();
    return true;
}

void start_receiving() REQUIRES(gInitMutex) {
    start_thread([life = gLife.load(), socket = current_connection()]() mutable {
        receive_from_manager(life, std::move(socket));
    });
    gReceiving = true;
}

// Takes the Manager's answer, or learns that none will come. Returns the service id.
int await_init_answer(std::unique_lock<std::mutex>& init_lock) NO_THREAD_SAFETY_ANALYSIS {
    const Life life = gLife;
    init_cv.wait(init_lock, [life]() NO_THREAD_SAFETY_ANALYSIS {
        return response_for_init || !gReceiving || is_over(life);
    });
    response_for_init = false;

    std::lock_guard<std::mutex> lock(gClientMutex);
    if (is_over(life) || gService_id < 0) {
        log_line(kFailure, "Failed to initialize with manager");
        return is_over(life) ? -1 : gService_id;
    }
    log_line(kProgress, "VEXON initialized; svc id %d", gService_id);
    return gService_id;
}

}  // namespace

int current_service_id() {
    std::lock_guard<std::mutex> lock(gClientMutex);
    return gService_id;
}

int vexa_svc_init() NO_THREAD_SAFETY_ANALYSIS {
    log_line(kProgress, "VEXON service init");
    if (const int id = existing_service_id(); id != -1) return id;
    if (refused_where_none_may_wait(__func__)) return -1;

    std::lock_guard<std::mutex> call_lock(gInitCallMutex);
    if (const int id = existing_service_id(); id != -1) return id;  // another caller was quicker
    gDebugLevel = property_get_int32("persist.vendor.vexon.clientlib.debug_level", 4);

    const bool needs_receiver = begin_life();
    if (needs_receiver && open_connection() != 0) return -1;
    // Held from before the thread starts, so that no answer can be signalled before the wait.
    std::unique_lock<std::mutex> init_lock(gInitMutex);
    if (needs_receiver) start_receiving();
    response_for_init = false;
    if (vexa_send_to_manager_raw("{\"req_type\":\"INIT\"}") != 0) {
        log_line(kFailure, "Failed to initiate communication with server");
        return -1;
    }
    return await_init_answer(init_lock);
}
