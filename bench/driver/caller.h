// How the driver calls a service, whatever they talk to each other.

#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "message.h"

namespace bench {

constexpr unsigned kMostInFlight = 64;

// A service that does not answer, or not what it should.
class CallFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Used by one thread. Each call has a slot, a number below kMostInFlight that no other call in
// flight has. All throw CallFailed.
class Caller {
  public:
    Caller() = default;
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    virtual ~Caller() = default;

    // What the calls from now on are. No call is in flight.
    virtual void use(const Message& message) = 0;

    // Makes a call.
    virtual void start(unsigned slot) = 0;

    // Waits until any of the calls is answered, checks the answer and returns the slot.
    virtual unsigned finish() = 0;
};

// A place where a service connects to.
class Listener {
  public:
    Listener(const std::string& path, int type);
    ~Listener();

    // Waits for the service. The descriptor is the caller's, and blocks.
    int accept() const;

  private:
    int fd_;
};

// These wait for the service to connect, or connect to it, and make it ready for calls. The floor
// needs no introduction, and answers without a result when it stops after an early step.
enum class Introduction { kFull, kNone };
enum class Answer { kChecksum, kNone };
std::unique_ptr<Caller> make_packet_caller(const Listener& listener, Introduction introduction,
                                           Answer answer);
std::unique_ptr<Caller> make_sd_bus_caller(const Listener& listener);

// Whether the driver was built with gRPC, without which no such caller can be made.
bool has_grpc();
std::unique_ptr<Caller> make_grpc_caller(const std::string& path);

}  // namespace bench
