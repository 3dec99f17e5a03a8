// SPDX-License-Identifier: Apache-2.0
// The calls that are measured, described once. JSON, D-Bus and protobuf arguments are made of this.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

constexpr std::uint32_t kOpcode = 0x1a;
constexpr std::uint32_t kSubsystem = 1;
constexpr std::uint32_t kSession = 5;

// The address of a call where functions belong to objects, and where gRPC's server listens.
constexpr char kObjectPath[] = "/service_1a/1/session_5";
constexpr char kGrpcPath[] = "unix:/dev/socket/grpc";

// An argument, a member of a struct or an element of a vector; its id is its position. Which of the
// fields holds the value depends on the type.
struct Argument {
    std::string type;  // as messages spell it
    double number = 0;
    std::string text = {};
    std::vector<Argument> parts = {};  // members or elements
};

struct Message {
    std::string name;
    std::string function;
    std::vector<Argument> arguments;
};

// Return a message of `count` arguments of one type, and one with a vector of them. As either a
// struct has one member.
Message scalars(const std::string& type, std::size_t count);
Message vector_of(const std::string& type, std::size_t count);

// Returns a message with one struct whose structs nest `depth` deep, with three more members each.
Message nested_structs(std::size_t depth);

// A request of 273 bytes with three arguments.
Message small_request();

// What is sent the whole way: the small request first, then what grows.
std::vector<Message> whole_way_messages();

// Returns the message as the Manager sends it. Ids from 100,000,000 on, all of nine digits, make
// requests of equal size.
constexpr std::uint32_t kFirstTransaction = 100'000'000;
std::string exec_task_text(const Message& message, std::uint32_t transaction);

// What a service that has decoded all arguments answers: the sum of the numbers, without their
// fractions, and of the lengths of the texts.
std::int64_t checksum(const std::vector<Argument>& arguments);

}  // namespace bench
