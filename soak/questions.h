// The threads of the service that ask the Manager all the time.

#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace soak {

// Threads that ask for permissions and information and log markers, until the object is destroyed,
// and report what came of it. While `connected` is false they ask now and then only.
class Questioners {
  public:
    Questioners(int count, const std::atomic<bool>& connected);
    ~Questioners();
    Questioners(const Questioners&) = delete;
    Questioners& operator=(const Questioners&) = delete;

  private:
    void ask_on(unsigned seed);

    const std::atomic<bool>& connected_;
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> threads_;
};

}  // namespace soak
