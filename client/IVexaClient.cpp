// SPDX-License-Identifier: Apache-2.0
#include "client/IVexaClient.h"

#include <new>

const std::uint8_t VEXA_JSON_DEF_VER_ARR = 2;
std::atomic<int> gMgrSocket_fd{-1};
int gService_id = -1;
const char deliminator[4] = "[],";
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
std::mutex& gWorkersMutex = *new std::mutex;
std::vector<std::shared_ptr<IdleWorker>>& gIdleWorkers =
    *new std::vector<std::shared_ptr<IdleWorker>>;
std::atomic<std::size_t> gMostIdleWorkers{0};

int current_service_id() {
    std::lock_guard<std::mutex> lock(gClientMutex);
    return gService_id;
}
