// SPDX-License-Identifier: Apache-2.0
// State of the client. All of it stands here, but for what belongs to one thread or to the log.
//
// The objects are made when the library is loaded and never destroyed: detached threads may still
// lock, log and look things up while the process exits. That is why those with a destructor are
// references.
//
// Order of the locks. Whoever holds a lock takes only such as stand to its right, or below:
//   gInitCallMutex, gInitMutex, gConnectMutex
//   gReadyMutex, gSessionsMutex
//   gReadyMutex, gReadyWaits.mutex
//   gAuthMutex or gRegsMutex, gAuthWaits.mutex
//   gClientMutex, gServicesMutex, gQueryIdMutex, gPermMutex, gInfoMutex, gSendMutex,
//   gReceiveEndMutex, gWorkersMutex: one at a time
// State callbacks run with gSessionsMutex (sessions) or gReadyMutex (changes) held. The former is
// let go of while such a callback is inside vexa_svc_deinit(), which takes locks to its left.

#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/thread_annotations.h"
#include "vexon2_0.h"

// Where one caller waits for the Manager's answer. Both threads hold the three objects, so that
// either may be the last to let go.
template <class Result>
struct waiter_meta_data {
    std::shared_ptr<Result> result;
    std::shared_ptr<std::condition_variable> cv;
    std::shared_ptr<bool> done;
};

struct RegsAuthMetaData : waiter_meta_data<std::int32_t> {};

struct regs_meta_data : waiter_meta_data<std::int32_t> {};

// Once the Manager has accepted, the entry is the service's registration of its callbacks.
struct ready_meta_data : waiter_meta_data<std::int32_t> {
    vexa_state_callback_t state_callback = nullptr;
    void* user_data = nullptr;
    vexon_exec_callback_t exec_callback = nullptr;
};

struct permRes_meta_data_t : waiter_meta_data<std::vector<bool>> {};

struct res_infos_meta_data_t : waiter_meta_data<std::vector<std::string>> {};

enum vexa_start_state {
    VEXA_SESSION_STARTED = 0,  // accepted by the service, not yet declared ready by the Manager
    VEXA_SESSION_READY = 1,    // tasks may run
};

// A service: opcode and subsystem.
using ServiceKey = std::pair<std::uint32_t, std::uint32_t>;
using SessionServices = std::map<ServiceKey, vexa_start_state>;

// Number of a life of the connection, see client/link/life.h.
using Life = std::uint64_t;

// Who waits for an acknowledgement. A caller holds the lock from its look at "done" until it
// sleeps, and the receive thread while it sets "done", so that no wake-up falls between the two.
// The lock guards result and done of the entries of gAuth, gRegs and of gReady too.
struct AcknowledgementWaits {
    std::mutex mutex;
    std::set<std::condition_variable*> waiting GUARDED_BY(mutex);
};

// Who wants to know that nobody receives any more. Guarded by gReceiveEndMutex.
struct ReceiveEndObserver {
    vexa_receive_end_callback_t callback = nullptr;
    void* user_data = nullptr;
    int calls_under_way = 0;
};

class ManagerSocket;
struct IdleWorker;  // see client/tasks/workers.h

extern std::mutex& gClientMutex;
extern std::mutex& gServicesMutex;
extern std::mutex& gSessionsMutex;
extern std::mutex& gSendMutex;
extern std::mutex& gInitMutex;
extern std::mutex& gRegsMutex;
extern std::mutex& gAuthMutex;
extern std::mutex& gReadyMutex;
extern std::mutex& gPermMutex;
extern std::mutex& gQueryIdMutex;
extern std::mutex& gInfoMutex;

// Written with gConnectMutex held; -1 = not connected. A socket that is open stays so while
// gConnectMutex or gSendMutex is held. Read without a lock where a glance is enough.
extern std::atomic<int> gMgrSocket_fd;

extern int gService_id GUARDED_BY(gClientMutex);

// Types by name. A name that the table has not is added with the value 0 when it is looked up.
// Tasks are decoded with gReadyMutex held, which makes the lookups take turns.
extern std::map<std::string, vexon_data_type_t>& gDataTypes;

extern std::set<ServiceKey>& gServices GUARDED_BY(gServicesMutex);
extern std::map<std::uint32_t, SessionServices>& gSessions GUARDED_BY(gSessionsMutex);

// Slots of a registration that is no longer offered. Nothing adds one, the Manager may still
// acknowledge into it.
extern std::map<std::uint32_t, regs_meta_data>& gRegs GUARDED_BY(gRegsMutex);

// Registrations that wait for their acknowledgement.
extern std::map<std::uint32_t, RegsAuthMetaData>& gAuth GUARDED_BY(gAuthMutex);

// Services that are ready or being declared so.
extern std::map<std::uint32_t, ready_meta_data>& gReady GUARDED_BY(gReadyMutex);

// Queries that wait for their answer, by query id.
extern std::map<std::uint32_t, permRes_meta_data_t>& gPerm GUARDED_BY(gPermMutex);
extern std::map<std::uint32_t, res_infos_meta_data_t>& gInfo GUARDED_BY(gInfoMutex);

extern std::atomic<int> gDebugLevel;
extern std::atomic<bool> gIsOneService;
extern std::atomic<bool> gMarkersEnabled;
extern std::atomic<bool> gInitDone;

extern std::uint32_t gQueryId GUARDED_BY(gQueryIdMutex);

// init_cv and response_for_init, on which vexa_svc_init() waits, are declared in vexon2_0.h and
// guarded by gInitMutex.

// One vexa_svc_init() at a time, from its first step to its last.
extern std::mutex& gInitCallMutex;

// Opening and closing of the connection.
extern std::mutex& gConnectMutex;

extern AcknowledgementWaits& gAuthWaits;
extern AcknowledgementWaits& gReadyWaits;

// The open connection; gMgrSocket_fd is its descriptor.
extern std::shared_ptr<ManagerSocket>& gMgrSocket GUARDED_BY(gSendMutex);

// The latest life, or one more if that has been ended. Written with gClientMutex held.
extern std::atomic<Life> gLife;

// Whether a de-initialisation is at work, from the end of a life until the process may begin
// another. gLeft is told of its end.
extern bool gLeaving GUARDED_BY(gClientMutex);
extern std::condition_variable& gLeft;

// Whether the life has a receive thread that still reads, that is, whether an answer can come.
// Written with gInitMutex held.
extern std::atomic<bool> gReceiving;

// gReceiveEndReturned is told when a call of an observer has returned.
extern std::mutex& gReceiveEndMutex;
extern std::shared_ptr<ReceiveEndObserver>& gReceiveEndObserver GUARDED_BY(gReceiveEndMutex);
extern std::condition_variable& gReceiveEndReturned;

// Threads that wait for a next task, and how many may: written with gWorkersMutex held, read
// without it where a glance is enough.
extern std::mutex& gWorkersMutex;
extern std::vector<std::shared_ptr<IdleWorker>>& gIdleWorkers GUARDED_BY(gWorkersMutex);
extern std::atomic<std::size_t> gMostIdleWorkers;

// Returns the service id, -1 = not initialised.
int current_service_id() EXCLUDES(gClientMutex);
