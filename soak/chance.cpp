// Rounds of chance: several threads call the library at random, with the id that the process has
// and with ids that it had, while the Manager does what it likes. Each call has to return soon, an
// id that is over must not be accepted, and no callback may get the user data of a life that is
// over. What else goes wrong the Manager's side sees.

#include <cstdio>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "service.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kThreads = 6;
constexpr unsigned kOldIds = 5;  // one of so many calls has any id instead of the latest
constexpr auto kCallLimit = 10s;

// What lies between an id from the Manager and the end of vexa_svc_deinit() for it.
struct Life {
    std::uint32_t id;
    std::atomic<bool> over{false};
};

// Never destroyed: threads of the library may still run when main() returns.
std::mutex& gMutex = *new std::mutex;
std::vector<Life*>& gLives = *new std::vector<Life*>{new Life{999'999'999, {true}}};  // by gMutex

void complain(const char* what, std::uint32_t id) {
    std::fprintf(stderr, "%s, service id %u\n", what, id);
}

Life& life_of(std::uint32_t id) {
    const std::lock_guard lock(gMutex);
    for (Life* const life : gLives) {
        if (life->id == id) return *life;
    }
    ++gShared.lives;
    return *gLives.emplace_back(new Life{id, {false}});
}

Life& any_life(std::mt19937& random) {
    const std::lock_guard lock(gMutex);
    return *(random() % kOldIds == 0 ? gLives[random() % gLives.size()] : gLives.back());
}

int on_state(int, vexa_req_t*, void* user_data) {
    const Life& life = *static_cast<const Life*>(user_data);
    const bool was_over = life.over;
    std::this_thread::yield();
    if (was_over || life.over) complain("a callback got released user data", life.id);
    return 0;
}

int on_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
    call->name = args.func_name;
    return 0;
}

// An opcode is used once: a second time might wait for ever.
void call_with_id(std::mt19937& random) {
    static std::atomic<std::uint32_t> opcode{0x1000};
    Life& life = any_life(random);
    const bool was_over = life.over;
    const bool leaves = random() % 4 == 0;
    const int result =
        leaves ? vexa_svc_deinit(life.id) : offer(life.id, {++opcode, 1}, on_state, &life, on_task);
    if (was_over && result >= 0) complain("an id that is over was accepted", life.id);
    if (leaves && result == 0) life.over = true;
}

void call_anything(std::mt19937& random) {
    const auto what = random() % 16;
    if (what == 0) {
        vexa_info_query(1, {name_of(1)});
    } else if (what == 1) {
        vexa_permission_query(1, {name_of(1)});
    } else if (what == 2) {
        vexa_send_to_manager_raw(std::string(1 + random() % 60'000, 'x').c_str());
    } else if (what < 8) {
        if (const int id = vexa_svc_init(); id >= 0) life_of(static_cast<std::uint32_t>(id));
    } else {
        call_with_id(random);
    }
}

struct Thread {
    std::atomic<Clock::time_point> begin{Clock::time_point::max()};  // of the call under way
    std::thread thread = {};

    void call_on(unsigned seed) {
        for (std::mt19937 random(seed); gShared.order != 'f'; ++gShared.calls) {
            begin = Clock::now();
            call_anything(random);
            begin = Clock::time_point::max();
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        }
        begin = Clock::time_point::min();
    }
};

}  // namespace

void take_chances(unsigned long seed) {
    Thread threads[kThreads];
    for (Thread& thread : threads) {
        thread.thread = std::thread(&Thread::call_on, &thread, ++seed);
    }
    for (Thread& thread : threads) {
        while (thread.begin.load() != Clock::time_point::min()) {
            std::this_thread::sleep_for(10ms);
            for (const Thread& other : threads) {
                const auto begin = other.begin.load();
                if (begin == Clock::time_point::min() || begin > Clock::now() - kCallLimit)
                    continue;
                std::fprintf(stderr, "a call does not return\n");
                std::_Exit(1);
            }
        }
        thread.thread.join();
    }
    for (Life* const life : gLives) vexa_svc_deinit(life->id);
}

}  // namespace soak
