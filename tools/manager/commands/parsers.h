#pragma once

#include "manager/commands/commands.h"

namespace manager {

// Each function reads the arguments of the command of its name. What is left of `words` afterwards
// is too much.

Action parse_call(Words& words);

// What is known of services.
Action parse_services(Words& words);
Action parse_describe(Words& words);

// Sessions.
Action parse_start(Words& words);
Action parse_ready(Words& words);
Action parse_end(Words& words);

// Notices of changes.
Action parse_permission_change(Words& words);
Action parse_state_change(Words& words);
Action parse_setting_change(Words& words);

// The Manager's own answers.
Action parse_refuse(Words& words);
Action parse_accept(Words& words);
Action parse_delay(Words& words);
Action parse_drop(Words& words);
Action parse_twice(Words& words);
Action parse_answer(Words& words);
Action parse_grant(Words& words);
Action parse_deny(Words& words);
Action parse_info(Words& words);

// Packets and connections.
Action parse_send(Words& words);
Action parse_expect(Words& words);
Action parse_reading(Words& words);
Action parse_close(Words& words);
Action parse_restart(Words& words);

// The conversation as a whole.
Action parse_record(Words& words);
Action parse_replay(Words& words);
Action parse_watch(Words& words);
Action parse_summary(Words& words);

/// The service, and the name of the function of it, that SERVICE.FUNCTION is. Throws CommandFailed
/// if there is no such service, BadCommand if it does not declare the function.
std::pair<Service, std::string> find_function(const CommandContext& context,
                                              const std::string& name);

/// Sends the packet to every client; throws CommandFailed if there is none.
void send_to_every_client(SimulatedManager& manager, const std::string& text);

}  // namespace manager
