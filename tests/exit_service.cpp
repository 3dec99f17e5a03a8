// SPDX-License-Identifier: Apache-2.0
// A service process that ends in the midst of its work, in one of several ways.
// Usage: vexon_exit_service LIBRARY return|task|deinit|unload|log|fork

#include <android/log.h>
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

std::atomic<int> gTasks{0};
std::atomic<bool> gExitInTask{false};

int on_state(int, vexa_req_t*, void*) {
    return 0;
}

int on_task(_vexon_call_info_t* call, vexon_func_call_info_t) {
    call->func = "\"text\":\"" + std::string(1000, 'x') + "\"";
    if (++gTasks == 5 && gExitInTask) std::exit(EXIT_SUCCESS);
    return 0;
}

template <class Function>
Function* symbol(void* library, const char* name) {
    auto* const found = reinterpret_cast<Function*>(::dlsym(library, name));
    if (found == nullptr) std::_Exit(3);
    return found;
}

int (*gLogMarker)(const char*) = nullptr;
std::atomic<int> gLines{0};
std::atomic<bool> gLineInWork{false};
bool gInChild = false;

// A log that takes its time for every line but the first.
void write_slowly(const __android_logger_data*, const char*) {
    if (++gLines == 1) return;
    gLineInWork = true;
    ::usleep(300'000);
    gLineInWork = false;
}

// Runs when the library's statics have died: no line may be in work then, nor begin. In the child
// process none is, so that there was nothing to sleep for.
void check_the_log() {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    if (gInChild) std::_Exit(usage.ru_nvcsw > 100 ? 7 : 0);
    if (gLineInWork) std::_Exit(8);
    const int lines = gLines;
    gLogMarker("late");
    if (gLines != lines) std::_Exit(9);
}

// Exits while another thread writes a line; before, a child process does so if `way` is "fork".
int exit_while_logging(const std::string& way) {
    std::atexit(check_the_log);
    __android_log_set_logger(write_slowly);
    gLogMarker("first");
    std::thread([] { gLogMarker("slow"); }).detach();
    while (!gLineInWork) ::usleep(100);
    gInChild = way == "fork" && ::fork() == 0;
    if (way == "log" || gInChild) return EXIT_SUCCESS;
    int status = 0;
    ::wait(&status);
    std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 10);
}

}  // namespace

int main(int, char** argv) {
    const std::string way = argv[2];
    gExitInTask = way == "task";
    void* const library = ::dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) return 2;
    gLogMarker = symbol<decltype(vexa_log_marker)>(library, "vexa_log_marker");
    if (way == "log" || way == "fork") return exit_while_logging(way);

    const auto id =
        static_cast<std::uint32_t>(symbol<decltype(vexa_svc_init)>(library, "vexa_svc_init")());
    constexpr char kApi[] = "\x02{\"Vexon\":{\"opcode\":\"1a\",\"subsystems\":[{\"id\":1}]}}";
    if (symbol<decltype(_vexa_svc_register_auth)>(library, "_vexa_svc_register_auth")(
            id, 26, reinterpret_cast<const std::uint8_t*>(kApi), "") != 0 ||
        symbol<decltype(_vexa_svc_ready)>(library, "_vexa_svc_ready")(id, 26, on_state, nullptr,
                                                                      on_task) != 0) {
        return 4;
    }
    while (gExitInTask || gTasks < 5) ::usleep(100);  // two threads must not exit at a time
    if (way == "return") return EXIT_SUCCESS;

    if (symbol<decltype(vexa_svc_deinit)>(library, "vexa_svc_deinit")(id) != 0) return 5;
    if (way == "unload" && ::dlclose(library) != 0) return 6;
    return EXIT_SUCCESS;
}
