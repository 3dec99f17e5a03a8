// SPDX-License-Identifier: Apache-2.0
// What the Manager sends without being asked, and what it reads of the packets of clients.
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

/// The session and the package that a notice of a change is about.
struct Affected {
    std::int64_t session = 0;
    std::string package = {};
};

/// The opcode as people write it, as in 0x1a.
std::string opcode_text(Opcode opcode);

std::string start_session_message(std::int64_t session, std::int64_t transaction,
                                  const std::vector<Target>& targets);
std::string ready_session_message(std::int64_t session, const std::vector<Target>& targets);
/// No targets are the whole session.
std::string end_session_message(std::int64_t session, std::int64_t transaction,
                                const std::vector<Target>& targets);
/// Throws ManagerError if the arguments of the task are not a JSON array.
std::string exec_task_message(const Task& task, std::int64_t transaction);

std::string permission_change_message(const std::string& permission, bool granted,
                                      const Affected& affected);
std::string state_change_message(const std::string& name, const std::string& value,
                                 const Affected& affected);
std::string setting_change_message(const std::string& name, const std::string& value,
                                   const Affected& affected);

/// The parts of a task's reply that the Manager reads.
struct ReplyHead {
    std::int64_t transaction;
    /// Absent if the reply has no integer there.
    std::optional<std::int64_t> status;
};
/// Returns nothing if the message is no reply to a task.
std::optional<ReplyHead> read_reply(const Json::Value& message);

/// What can be read of a packet that is no JSON, since clients escape nothing: the type and the
/// number of a reply or of an AUTH, and of that what its fault is. Null if it is something else.
Json::Value read_broken(const std::string& text, std::string& fault);

}  // namespace manager
