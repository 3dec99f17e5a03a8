// SPDX-License-Identifier: Apache-2.0
// How the driver calls a service, whatever they talk to each other.

#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "manager/base/file_descriptor.h"
#include "message.h"

namespace bench {

constexpr unsigned kMostInFlight = 64;

// Used by one thread. Each call has a slot, a number below kMostInFlight that no other call in
// flight has. All throw std::runtime_error where the service does not answer as it should.
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

// Make the service that runs ready for calls over the connection. The library wants an
// introduction, and a step of the floor answers without a result.
enum class PacketService { kLibrary, kFloor, kStepOfFloor };
std::unique_ptr<Caller> make_packet_caller(manager::FileDescriptor connection,
                                           PacketService service);
std::unique_ptr<Caller> make_sd_bus_caller(int connection);

// Waits for the service to listen at kGrpcPath. Is null where the driver was built without gRPC.
[[gnu::weak]] std::unique_ptr<Caller> make_grpc_caller(int);

}  // namespace bench
