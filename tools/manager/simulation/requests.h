// What clients send that the Manager reads, and the answers to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "manager/base/json.h"
#include "manager/simulation/messages.h"

namespace manager {

/// What clients ask for and the Manager answers by itself: the steps of their introduction, and
/// the queries of permissions and of information.
enum class Step { Init, Auth, Ready, Permission, Info };
constexpr std::size_t kStepCount = 5;

struct Request {
    Step step;
    /// The answer has the same.
    const char* req_type;
    /// Of an AUTH or REDY; absent without a usable one.
    std::optional<Opcode> opcode;
    /// Of a query; absent without a usable one.
    std::optional<std::int64_t> query;
    /// The permissions or the information that a query names.
    std::vector<std::string> names;
    /// Why it has to be refused, if it has to.
    std::string fault = {};
};

/// The parts of a task's reply that the Manager reads.
struct ReplyHead {
    std::int64_t transaction;
    /// Absent if the reply has no integer there.
    std::optional<std::int64_t> status;
};

/// Returns what `message` asks for if it has the type of a request, whatever else it holds.
std::optional<Request> read_request(const Json::Value& message);

/// What can be read from a text of a client that is no JSON, since clients escape nothing: an AUTH
/// with its opcode, and the head of a reply.
std::optional<Request> read_broken_auth(const std::string& text);
std::optional<ReplyHead> read_broken_reply(const std::string& text);

/// Returns the head of `message` if it is the reply to a task.
std::optional<ReplyHead> read_reply(const Json::Value& message);

// The answers to requests of the step, which for all but an INIT must have an opcode or a query. A
// negative id, result or status is a refusal.
std::string init_answer(std::int64_t service_id);
std::string acknowledgement(const Request& request, int result);
std::string permission_answer(const Request& request, int status,
                              const std::vector<std::string>& results);
std::string info_answer(const Request& request, const std::vector<std::string>& results);

}  // namespace manager
