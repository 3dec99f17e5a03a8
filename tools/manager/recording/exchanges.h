// SPDX-License-Identifier: Apache-2.0
// The conversation as pictures show it: which answer belongs to which request.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "manager/recording/recording.h"

namespace manager {

enum class Role { Request, Answer, Other };

/// An event of a recording, and what it has to do with the others.
struct PicturedEvent : RecordedEvent {
    /// When, since the first event, and never before that of the event above.
    std::chrono::nanoseconds begin{};
    Role role = Role::Other;
    /// The "req_type"; of a plain reply that of its task.
    std::string type = {};
    /// What a packet is about, as the name of a function; of an answer what its request is about.
    std::string subject = {};
    /// What an answer says, as a status; the value of a notice.
    std::string outcome = {};
    /// Whether the outcome is a refusal or an error.
    bool failed = false;
    std::string session = {};
    /// The text of the arguments of a task, or of the services that a session is about.
    std::string arguments = {};
    /// The answer to this request, or the request that this answers, among the same events.
    const PicturedEvent* partner = nullptr;
    /// When this request was answered, or when it was certain that it would not be.
    std::chrono::nanoseconds end{};
};

/// The request that an answer belongs to is the oldest without answer of the same client, type and
/// id: the transaction and session of a task, the query, the opcode or the session. No answer
/// belongs to a request of a connection before.
std::vector<PicturedEvent> pair_up(std::vector<RecordedEvent> recorded);

/// The event in a few words.
std::string title(const PicturedEvent& event);

}  // namespace manager
