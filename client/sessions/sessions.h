// SPDX-License-Identifier: Apache-2.0
// What the messages of a session have in common: which services they name, how a service is told
// and how the Manager is answered. Runs on the receive thread.

#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "client/IVexaClient.h"

// The services that a message names for one opcode.
struct SessionTarget {
    std::uint32_t opcode;
    std::vector<std::uint32_t> subsystems;
};

// The state callback of a service that is ready, and what is handed to it.
struct StateCallback {
    vexa_state_callback_t function;
    void* user_data;
};

// Reads the "opcodes" of start_session and ready_session, whose ids are hexadecimal text. Throws
// MalformedMessage before anything has been done if a member is of a wrong kind.
std::vector<SessionTarget> read_session_targets(const Json::Value& message);

// Reads "session_id" (default 0). Returns whether it is an unsigned integer.
bool read_session_id(const Json::Value& message, std::uint32_t* session_id);

// Reads "transac_id" (default 0) with all 32 bits kept: -1 and 4294967295 are the same id.
std::uint32_t read_transaction_id(const Json::Value& message);

// Returns whether there is such a session, with or without services.
bool session_exists(std::uint32_t session_id) EXCLUDES(gSessionsMutex);

// Returns the state callback of `opcode`, nothing if the service is not ready.
std::optional<StateCallback> find_state_callback(std::uint32_t opcode) EXCLUDES(gReadyMutex);

// Returns those of all services that are ready, by opcode.
std::map<std::uint32_t, StateCallback> all_state_callbacks() EXCLUDES(gReadyMutex);

// Returns a notification with all other fields empty.
vexa_req_t make_state_request(vexa_status_t status, std::uint32_t opcode, std::uint32_t subsys_id,
                              std::uint32_t session_id);

// Tells a service. Returns the callback's result, and -1 where there is no callback or where the
// caller works for a life that is over: user data may be gone then.
int call_state_callback(const StateCallback& callback, int service_id, vexa_req_t request)
    REQUIRES(gSessionsMutex);

// As above for a session's state, with a log line; reads the service id itself.
int inform_session_state(unsigned session_id, unsigned opcode, unsigned subsystem,
                         vexa_state_callback_t callback, void* user_data, vexa_status_t status)
    REQUIRES(gSessionsMutex) EXCLUDES(gClientMutex);

// Lets go of gSessionsMutex, until the object dies, where the caller is inside a session's state
// callback, which has it.
class SessionsUnlocked {
  public:
    SessionsUnlocked();
    ~SessionsUnlocked();
    SessionsUnlocked(const SessionsUnlocked&) = delete;
    SessionsUnlocked& operator=(const SessionsUnlocked&) = delete;

  private:
    const bool inside_callback_;
};

// Returns whether the state callback that this thread has called last let go of gSessionsMutex.
// The table may be that of another life then, and nothing of what was looked up before is valid.
bool sessions_were_unlocked();

// Returns when no session's callback of a life that has ended runs any more; none follows.
void await_session_callback() EXCLUDES(gSessionsMutex);

// Sends the response to start_session or end_session; `started` is listed in the former only.
// Returns 0, or another value when it cannot be sent or the caller works for a life that is over.
int send_session_response(bool is_start, bool success, std::uint32_t session_id,
                          const std::map<std::uint32_t, std::vector<std::uint32_t>>& started)
    EXCLUDES(gSessionsMutex);
