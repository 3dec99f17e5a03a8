#include "driver/measurement.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <thread>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCore = 0;
constexpr unsigned kWarmUpShare = 5;
constexpr std::chrono::milliseconds kPause{
    20};  // in which all that a task leaves to do is done, under valgrind too

// The clock is read once for each call: the end of one is the start of the next.
class Burst {
  public:
    Burst(Caller* caller, unsigned in_flight) : caller_(*caller), in_flight_(in_flight) {}

    void run(std::chrono::microseconds duration, Series* series) {
        const auto begin = Clock::now();
        auto now = begin;
        for (unsigned slot = 0; slot < in_flight_; ++slot) start(slot, now);
        for (unsigned running = in_flight_; running > 0;) {
            const unsigned slot = caller_.finish();
            now = Clock::now();
            series->latencies_us.push_back(
                std::chrono::duration<float, std::micro>(now - started_[slot]).count());
            if (now - begin < duration) {
                start(slot, now);
            } else {
                --running;
            }
        }
        series->seconds += std::chrono::duration<double>(now - begin).count();
    }

  private:
    void start(unsigned slot, Clock::time_point now) {
        started_[slot] = now;
        caller_.start(slot);
    }

    Caller& caller_;
    const unsigned in_flight_;
    std::array<Clock::time_point, kMostInFlight> started_{};
};

void measure(const Service& service, const Message& message, unsigned in_flight,
             std::chrono::microseconds duration, Series* series) {
    Burst burst(service.caller.get(), in_flight);
    Series discarded;
    service.caller->use(message);
    burst.run(duration / kWarmUpShare, &discarded);

    const double service_before = service.child->cpu_seconds();
    const double driver_before = seconds(CLOCK_PROCESS_CPUTIME_ID);
    burst.run(duration, series);
    series->service_cpu_seconds += service.child->cpu_seconds() - service_before;
    series->driver_cpu_seconds += seconds(CLOCK_PROCESS_CPUTIME_ID) - driver_before;
}

struct Runner {
    Contender contender;
    Service service;
};

std::vector<Runner> start_all() {
    std::vector<Runner> runners;
    for (const Contender& contender : contenders()) {
        auto service = start_service(contender.name, {});
        if (service) {
            runners.push_back({contender, std::move(*service)});
        } else {
            std::printf("%s is left out: it was not found when this was built.\n", contender.name);
        }
    }
    return runners;
}

void place(const std::vector<Runner>& runners, Placement placement) {
    const int cpu = placement == Placement::kOneCore ? kCore : -1;
    pin_process(::getpid(), cpu);
    for (const Runner& runner : runners) runner.service.child->pin(cpu);
}

const Message& message_named(const std::string& name) {
    static const std::vector<Message> messages = whole_way_messages();
    const auto found = std::find_if(messages.begin(), messages.end(),
                                    [&](const Message& message) { return message.name == name; });
    if (found == messages.end()) throw CallFailed("there is no message '" + name + "'");
    return *found;
}

void show_progress(unsigned round, unsigned rounds) {
    if (::isatty(STDERR_FILENO) == 0) return;
    std::fprintf(stderr, "\rround %u of %u%s", round, rounds, round == rounds ? "\n" : "");
}

}  // namespace

std::vector<Setting> all_settings() {
    std::vector<Setting> settings;
    for (const Message& message : whole_way_messages()) {
        settings.push_back({message.name, 1, Role::kRival});
    }
    const std::string small = small_request().name;
    for (const unsigned in_flight : {4U, 16U, 64U}) {
        settings.push_back({small, in_flight, Role::kRival});
    }
    for (const std::string& message : {small, std::string("100 arguments")}) {
        settings.push_back({message, 1, Role::kStepOfFloor});
    }
    return settings;
}

Results measure_all(const Effort& effort) {
    std::vector<Runner> runners = start_all();
    Results results;
    for (unsigned round = 1; round <= effort.rounds; ++round) {
        for (const Placement placement : {Placement::kOneCore, Placement::kFree}) {
            place(runners, placement);
            for (const Setting& setting : all_settings()) {
                for (const Runner& runner : runners) {
                    if (runner.contender.role != setting.role) continue;
                    measure(runner.service, message_named(setting.message), setting.in_flight,
                            std::chrono::milliseconds(effort.burst_ms),
                            &results[{setting, runner.contender.name, placement}]);
                }
            }
        }
        // Nobody always follows the same one.
        std::rotate(runners.begin(), runners.begin() + 1, runners.end());
        show_progress(round, effort.rounds);
    }
    return results;
}

void drive(const std::string& contender, const std::vector<std::string>& under,
           const std::string& message, std::size_t tasks) {
    const auto service = start_service(contender, under);
    if (!service) throw CallFailed(contender + " was not found when this was built");
    service->caller->use(message_named(message));
    for (std::size_t i = 0; i < tasks; ++i) {
        service->caller->start(0);
        service->caller->finish();
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace bench
