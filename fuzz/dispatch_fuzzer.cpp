// SPDX-License-Identifier: Apache-2.0
// An input is a conversation: packets of the Manager, one per line, which a client in full
// operation receives on its own thread. The line "EOF" is the end of the Manager.

#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "client/IVexaClient.h"
#include "fuzz/argument_reader.h"
#include "fuzz/client_edge.h"
#include "fuzz/json_mutator.h"
#include "fuzz/oracle.h"
#include "manager/base/json.h"
#include "manager/simulation/Manager.h"
#include "private_dev/enter_private_dev.h"

namespace {

constexpr const char* kEndOfManager = "EOF";
constexpr std::uint32_t kOpcode = 0x1a;
constexpr std::uint32_t kRefusingOpcode = 0x1b;
constexpr std::uint32_t kWaitingOpcode = 0x1c;
constexpr std::uint32_t kWaitingQuery = 1;
constexpr std::uint32_t kSession = 5;
constexpr std::uint32_t kStartedSession = 6;
constexpr std::uint32_t kLeavingSession = 1313;

// What tasks were given as arguments. The suppression of the one deliberate leak would hide it if
// they were not released.
class GivenArguments {
  public:
    void add(const vexon_value_map_t& arguments) {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [key, value] : arguments) values_.push_back(value);
    }

    void require_released() {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& value : values_) require(value.expired(), "arguments are released");
        values_.clear();
    }

  private:
    std::mutex mutex_;
    std::vector<std::weak_ptr<ValuesInterface>> values_;
};

GivenArguments& gGivenArguments = *new GivenArguments;

int serve_state(int service_id, vexa_req_t* request, void* user_data) {
    ++*static_cast<int*>(user_data);
    require((request->permission + request->state + request->package).size() < SIZE_MAX,
            "the texts can be read");
    if (request->session_id == kLeavingSession) {
        vexa_svc_deinit(static_cast<std::uint32_t>(service_id));
    }
    return 0;
}

int refuse_odd_sessions(int service_id, vexa_req_t* request, void* user_data) {
    serve_state(service_id, request, user_data);
    return static_cast<int>(request->session_id % 2);
}

int echo_arguments(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    const std::string arguments = read_arguments(args).text();
    if (args.value_queue != nullptr) gGivenArguments.add(*args.value_queue);
    if (args.func_name == "throw") throw std::runtime_error("broken service");
    call->opcode = "0x1a";
    call->name = "echo";
    // Without a transaction the text stands between quotes in the reply.
    call->func = call->transac_id == -1 ? "ok" : "\"out\":" + manager::json_string(arguments);
    return 0;
}

template <class Waiter>
Waiter make_unanswered() {
    Waiter waiter;
    waiter.result = std::make_shared<typename decltype(waiter.result)::element_type>();
    waiter.cv = std::make_shared<std::condition_variable>();
    waiter.done = std::make_shared<bool>(false);
    return waiter;
}

template <class State>
void restore(std::mutex& mutex, State* state, State value) {
    const std::lock_guard<std::mutex> lock(mutex);
    *state = std::move(value);
}

void require_free_locks() {
    for (std::mutex* mutex :
         {&gClientMutex, &gServicesMutex, &gSessionsMutex, &gSendMutex, &gInitMutex, &gRegsMutex,
          &gAuthMutex, &gReadyMutex, &gPermMutex, &gQueryIdMutex, &gInfoMutex, &gInitCallMutex,
          &gConnectMutex, &gAuthWaits.mutex, &gReadyWaits.mutex, &gReceiveEndMutex}) {
        require(mutex->try_lock(), "all locks are free when no message is being handled");
        mutex->unlock();
    }
}

// The library in full operation: connected to a Manager in this process, with two services that
// are ready, sessions, and queries and registrations that wait for an answer. There is one object
// of it, used by one thread; the process runs in a private /dev.
class LiveClient {
  public:
    LiveClient() {
        manager_.start();
        start();
    }

    // Has the client handle the packets one after the other, waits until it is at rest, requires
    // that no lock is left taken and restores the state of before. No packet is empty.
    void handle(const std::vector<std::string>& packets) {
        const bool receives = give(packets);
        require_free_locks();
        gGivenArguments.require_released();
        if (!receives || current_service_id() != service_id_) start_over();
        restore_state();
    }

  private:
    void start() {
        const IntroductionScope scope;
        given_ = 0;
        service_id_ = vexa_svc_init();
        require(service_id_ >= 0, "the client can be initialised");
        ++given_;
        offer(kOpcode,
              "\x02{\"Vexon\":{\"opcode\":\"1a\",\"subsystems\":[{\"id\":1},{\"id\":2}]}}");
        offer(kRefusingOpcode, "\x02{\"Vexon\":{\"opcode\":\"1b\",\"subsystems\":[{\"id\":1}]}}");
        connection_ = manager_.clients().back();
        // The first session makes room for the longest messages.
        require(give({R"({"req_type":"start_session"})"}), "the client receives");
        restore_state();
    }

    // An input that ends the receive thread or has the client forget its id leaves much behind.
    void start_over() {
        {
            const IntroductionScope scope;
            restore(gClientMutex, &gService_id, service_id_);
            const auto id = static_cast<std::uint32_t>(service_id_);
            require(vexa_svc_deinit(id) == 0, "the client can leave");
            await_end_of_threads();
        }
        start();
    }

    void offer(std::uint32_t opcode, const char* definition) {
        const auto id = static_cast<std::uint32_t>(service_id_);
        const auto* blob = reinterpret_cast<const std::uint8_t*>(definition);
        const auto callback = opcode == kRefusingOpcode ? refuse_odd_sessions : serve_state;
        require(_vexa_svc_register_auth(id, opcode, blob, "token") == 0, "a service can register");
        require(_vexa_svc_ready(id, opcode, callback, &notices_, echo_arguments) == 0,
                "a service can become ready");
        given_ += 2;
    }

    // Returns whether the client still receives.
    bool give(const std::vector<std::string>& packets) {
        for (const std::string& packet : packets) {
            if (packet == kEndOfManager) {
                manager_.close_clients();
                await_end_of_threads();
                return false;
            }
            try {
                manager_.send(connection_, packet);
                ++given_;
            } catch (const manager::ManagerError&) {
                // It has left, as a packet before this one may have it do.
            }
        }
        return await_rest(given_);
    }

    void restore_state() {
        restore(gSessionsMutex, &gSessions,
                {{kSession,
                  {{{kOpcode, 1}, VEXA_SESSION_READY}, {{kRefusingOpcode, 1}, VEXA_SESSION_READY}}},
                 {kStartedSession, {{{kOpcode, 2}, VEXA_SESSION_STARTED}}}});
        restore(gAuthMutex, &gAuth, {{kWaitingOpcode, make_unanswered<RegsAuthMetaData>()}});
        restore(gRegsMutex, &gRegs, {{kWaitingOpcode, make_unanswered<regs_meta_data>()}});
        restore(gPermMutex, &gPerm, {{kWaitingQuery, make_unanswered<permRes_meta_data_t>()}});
        restore(gInfoMutex, &gInfo, {{kWaitingQuery, make_unanswered<res_infos_meta_data_t>()}});
        restore(gInitMutex, &response_for_init, false);
        const std::lock_guard<std::mutex> lock(gReadyMutex);
        for (const auto& [opcode, service] : gReady) *service.done = false;
        restore_data_types();
    }

    manager::SimulatedManager manager_;
    int connection_ = 0;
    std::uint64_t given_ = 0;  // packets, on the connection of now
    int service_id_ = -1;
    int notices_ = 0;  // what the services are handed as user data
};

LiveClient* gClient = nullptr;

std::vector<std::string> lines_of(const std::string& input) {
    std::istringstream stream(input);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

// Changes one packet, or sends one twice.
std::string mutate_packets(const std::string& input, std::minstd_rand& random) {
    std::vector<std::string> packets = lines_of(input);
    if (packets.empty()) return input;
    std::string& packet = packets[random() % packets.size()];
    if (random() % 8 == 0) {
        packets.push_back(packet);
    } else {
        packet = mutate_json(packet, random);
    }
    std::string result;
    for (const std::string& line : packets) result += line + '\n';
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
    enter_private_dev(VEXON_PRIVATE_DEV, *argv);
    quiet_log();
    gClient = new LiveClient;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    gClient->handle(lines_of({reinterpret_cast<const char*>(data), size}));
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
    return mutate_input(data, size, max_size, seed, mutate_packets);
}
