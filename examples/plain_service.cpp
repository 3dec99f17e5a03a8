// SPDX-License-Identifier: Apache-2.0
// The functions of vexon2_0.h by themselves, without the headers beside it: a service with one
// function, which comes back whatever happens to the Manager.

#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <algorithm>

namespace {

constexpr std::uint32_t kOpcode = 0x2b;
// Version byte 2, then the definition. Its opcode is in hexadecimal.
constexpr char kApi[] =
    "\x02"
    R"({"Vexon":{"opcode":"2b","name":"doubler","subsystems":[{"id":1}],"functions":[)"
    R"({"name":"double","args":[{"id":0,"name":"number","type":"int32"}]}]}})";

sem_t gWake;
volatile sig_atomic_t gEnding = 0;

int on_state(int, vexa_req_t*, void*) {
    return 0;  // accepts every session
}

int on_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    call->opcode = "0x2b";
    call->name = "double";
    call->status = -1;
    if (args.func_name != "double" || args.type_queue == nullptr) return 0;
    const auto number = args.type_queue->find(0);
    if (number == args.type_queue->end() || number->second.first != VEXON_TYPE_INT32) return 0;
    const auto value = std::static_pointer_cast<ParamValues<int>>(number->second.second)->value;
    call->func = "\"out\":" + std::to_string(2LL * value);
    call->status = 0;
    return 0;
}

void on_signal(int) {
    gEnding = 1;
    sem_post(&gWake);
}

// What it takes to be served again waits for the Manager, which cannot be done here.
void on_receive_end(vexa_receive_end_t reason, void*) {
    if (reason == VEXA_RECEIVE_END_DISCONNECTED || reason == VEXA_RECEIVE_END_CLOSED) return;
    sem_post(&gWake);
}

void forget_wakes() {
    while (sem_trywait(&gWake) == 0) {
    }
}

// Returns the service id, negative if the Manager does not take the service.
int offer() {
    forget_wakes();  // of the connection before
    vexa_svc_on_receive_end(on_receive_end, nullptr);
    const int id = vexa_svc_init();
    const auto service_id = static_cast<std::uint32_t>(id);
    const auto* api = reinterpret_cast<const std::uint8_t*>(kApi);
    const bool ready = id >= 0 &&
                       _vexa_svc_register_auth(service_id, kOpcode, api, "my token") == 0 &&
                       _vexa_svc_ready(service_id, kOpcode, on_state, nullptr, on_task) == 0;
    if (ready) return id;
    vexa_svc_deinit(service_id);
    return -1;
}

void serve(int id) {
    puts("serving");
    while (gEnding == 0 && sem_wait(&gWake) != 0) {
    }
    terminate_sessions();  // the next Manager knows nothing of them
    vexa_svc_deinit(static_cast<std::uint32_t>(id));
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sem_init(&gWake, 0, 0);
    struct sigaction action {};
    action.sa_handler = on_signal;
    // Without SA_RESTART a signal costs the receive thread half a second. A second signal ends the
    // process even while it waits for a Manager that does not answer.
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    unsigned pause = 1;  // s
    while (gEnding == 0) {
        const int id = offer();
        if (id >= 0) serve(id);
        pause = id >= 0 ? 1 : std::min(2 * pause, 8U);
        for (unsigned second = 0; second < pause && gEnding == 0; ++second) sleep(1);
    }
}
