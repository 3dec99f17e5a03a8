// A service process that ends in the midst of its work, in one of several ways.
// Usage: vexon_exit_service LIBRARY return|task|deinit|unload

#include <dlfcn.h>
#include <unistd.h>
#include <vexon2_0.h>

#include <atomic>
#include <cstdlib>
#include <string>

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

}  // namespace

int main(int, char** argv) {
    const std::string way = argv[2];
    gExitInTask = way == "task";
    void* const library = ::dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) return 2;

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
