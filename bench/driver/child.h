// A service process.

#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

namespace bench {

// Runs while the object lives. Used by one thread.
class Child {
  public:
    // Starts a program of the directory in which this one is, `under` another one's control if that
    // is not empty. Throws std::system_error.
    Child(std::vector<std::string> command, const std::vector<std::string>& under);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Closes the child's standard input, which tells it to end, and waits until it has.
    ~Child();

    // Returns the CPU time that all its threads, those that have ended included, took so far.
    double cpu_seconds() const;

    // Lets all its threads run on `cpu` only, or on all for -1.
    void pin(int cpu) const;

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    clockid_t clock_ = 0;
};

// Lets all threads of the process run on `cpu` only, or on all for -1.
void pin_process(pid_t pid, int cpu);

// Returns the time of a clock in seconds.
double seconds(clockid_t clock);

}  // namespace bench
