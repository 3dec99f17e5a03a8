#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace manager {

using Opcode = std::uint32_t;
using Subsystem = std::uint32_t;

/// An opcode and those of its subsystems that a session is for.
struct Target {
    Opcode opcode;
    std::vector<Subsystem> subsystems;
};

/// A function call for a client to execute. `args` is the text of the JSON array of arguments, as
/// in [{"id":0,"type":"uint8","value":5}].
struct Task {
    std::int64_t session;
    Opcode opcode;
    Subsystem subsystem;
    std::string name;
    std::string args = "[]";
};

/// The steps of a client's introduction.
enum class Step { Init, Auth, Ready };

struct Request {
    Step step;
    /// Absent in an INIT and in a request without a usable one.
    std::optional<Opcode> opcode;
};

/// The parts of a task's reply that the Manager reads.
struct ReplyHead {
    std::int64_t transaction;
    /// Absent if the reply has no integer there.
    std::optional<std::int64_t> status;
};

/// Returns nothing if `text` is not JSON; never throws.
std::optional<Json::Value> parse_json(const std::string& text);

/// Returns what `message` asks for if it is an INIT, AUTH or REDY, whatever else it holds.
std::optional<Request> read_request(const Json::Value& message);

/// Returns the head of `message` if it is the reply to a task.
std::optional<ReplyHead> read_reply(const Json::Value& message);

/// The opcode as people write it, as in 0x1a.
std::string opcode_text(Opcode opcode);

std::string init_answer(std::int64_t service_id);
/// `step` is Auth or Ready; a negative `result` is a refusal.
std::string step_answer(Step step, Opcode opcode, int result);
std::string start_session_message(std::int64_t session, std::int64_t transaction,
                                  const std::vector<Target>& targets);
std::string ready_session_message(std::int64_t session, const std::vector<Target>& targets);
/// Throws ManagerError if the arguments of the task are not a JSON array.
std::string exec_task_message(const Task& task, std::int64_t transaction);

}  // namespace manager
