// SPDX-License-Identifier: Apache-2.0
// Calls services the whole way, in closed loops with a number of calls in flight. Runs in a private
// /dev.
//
// Usage: bench-driver compare ROUNDS MS CSV
//            prints tables of all contenders, each of which has a turn of MS in each round
//        bench-driver drive CONTENDER MESSAGE TASKS [COMMAND...]
//            has one service, which COMMAND runs, handle tasks

#include <fmt/core.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <thread>

#include "driver/results.h"
#include "driver/service.h"

namespace {

using namespace bench;

using Clock = std::chrono::steady_clock;

constexpr int kCore = 0;
constexpr unsigned kWarmUpShare = 5;
// In which all that a task leaves to do is done, under valgrind too.
constexpr std::chrono::milliseconds kPause{20};

double seconds(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Lets all threads of the process run on `cpu` only, or on all for -1.
void pin_process(pid_t pid, int cpu) {
    cpu_set_t cpus;
    std::memset(&cpus, cpu == -1 ? 0xff : 0, sizeof cpus);
    if (cpu != -1) CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    const std::string threads = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        ::sched_setaffinity(std::stoi(thread.path().filename()), sizeof cpus, &cpus);
    }
}

// The clock is read once for each call: the end of one is the start of the next.
void run_burst(Caller* caller, unsigned in_flight, std::chrono::microseconds duration,
               Series* series) {
    std::array<Clock::time_point, kMostInFlight> started;
    const auto begin = Clock::now();
    auto now = begin;
    const auto start = [&](unsigned slot) {
        started[slot] = now;
        caller->start(slot);
    };
    for (unsigned slot = 0; slot < in_flight; ++slot) start(slot);
    for (unsigned running = in_flight; running > 0;) {
        const unsigned slot = caller->finish();
        now = Clock::now();
        series->latencies_us.push_back(
            std::chrono::duration<float, std::micro>(now - started[slot]).count());
        if (now - begin < duration) {
            start(slot);
        } else {
            --running;
        }
    }
    series->seconds += std::chrono::duration<double>(now - begin).count();
}

void measure(const Service& service, const Message& message, unsigned in_flight,
             std::chrono::microseconds duration, Series* series) {
    Series discarded;
    service.caller->use(message);
    run_burst(service.caller.get(), in_flight, duration / kWarmUpShare, &discarded);

    const double service_before = seconds(service.cpu_clock);
    const double driver_before = seconds(CLOCK_PROCESS_CPUTIME_ID);
    run_burst(service.caller.get(), in_flight, duration, series);
    series->service_cpu_seconds += seconds(service.cpu_clock) - service_before;
    series->driver_cpu_seconds += seconds(CLOCK_PROCESS_CPUTIME_ID) - driver_before;
}

// Returns the one that has the name.
template <class Thing>
Thing named(const std::vector<Thing>& things, const std::string& name) {
    for (const Thing& thing : things) {
        if (thing.name == name) return thing;
    }
    throw std::runtime_error("there is no '" + name + "'");
}

// Measures everything, with turns of `burst_ms`. All services run side by side and take turns, so
// that whatever else the machine does hits all of them alike.
Results measure_all(std::size_t rounds, std::size_t burst_ms) {
    const std::vector<Setting> settings = all_settings();
    const std::chrono::milliseconds burst(burst_ms);
    std::vector<std::unique_ptr<Service>> services;
    for (const Contender& contender : contenders()) {
        services.push_back(std::make_unique<Service>(contender));
        if (services.back()->caller) continue;
        fmt::print(stderr, "{} is left out: this was built without it.\n", contender.name);
        services.pop_back();
    }
    Results results;
    for (std::size_t round = 1; round <= rounds; ++round) {
        for (const Placement placement : {Placement::kOneCore, Placement::kFree}) {
            const int cpu = placement == Placement::kOneCore ? kCore : -1;
            pin_process(::getpid(), cpu);
            for (const auto& service : services) pin_process(service->pid, cpu);
            for (std::size_t i = 0; i < settings.size(); ++i) {
                const auto& [message, in_flight, has_steps] = settings[i];
                for (const auto& service : services) {
                    const Contender& contender = service->contender;
                    if (contender.is_step && !has_steps) continue;
                    measure(*service, message, in_flight, burst,
                            &results[{i, contender.name, placement}]);
                }
            }
        }
        // Nobody always follows the same one.
        std::rotate(services.begin(), services.begin() + 1, services.end());
        if (::isatty(STDERR_FILENO) == 0) continue;
        fmt::print(stderr, "\rround {} of {}{}", round, rounds, round == rounds ? "\n" : "");
    }
    return results;
}

// Has one service handle exactly `tasks` calls, each when the one before has left no trace, so that
// counts of what the service did can be repeated.
void drive(const std::string& contender, const std::string& message, std::size_t tasks,
           const std::vector<std::string>& under) {
    const Service service(named(contenders(), contender), under);
    if (!service.caller) throw std::runtime_error("this was built without " + contender);
    service.caller->use(named(whole_way_messages(), message));
    for (std::size_t i = 0; i < tasks; ++i) {
        service.caller->start(0);
        service.caller->finish();
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 4 && words[0] == "compare") {
        const Results results = measure_all(std::stoul(words[1]), std::stoul(words[2]));
        fmt::print("{}", tables_of(results));
        std::ofstream csv(words[3]);
        if (!(csv << csv_of(results)).flush()) throw std::runtime_error("cannot write " + words[3]);
    } else if (words.size() >= 4 && words[0] == "drive") {
        drive(words[1], words[2], std::stoul(words[3]), {words.begin() + 4, words.end()});
    } else {
        throw std::runtime_error("wrong arguments");
    }
    return 0;
} catch (const std::exception& error) {
    fmt::print(stderr, "bench-driver: {}\n", error.what());
    return 1;
}
