#pragma once

#include "manager/commands/commands.h"

namespace manager {

struct Command {
    const char* name;
    const char* arguments;
    const char* help;
    /// Reads the arguments. What is left of `words` afterwards is too much.
    Action (*parse)(Words& words);
};
using Commands = std::vector<Command>;

// The commands of each file.
extern const Commands kServiceCommands;
extern const Commands kCallCommands;
extern const Commands kSessionCommands;
extern const Commands kNoticeCommands;
extern const Commands kAnswerCommands;
extern const Commands kConnectionCommands;
extern const Commands kTrafficCommands;

/// Sends the packet to every client; throws CommandFailed if there is none.
void send_to_every_client(SimulatedManager& manager, const std::string& text);

/// The service, and the name of the function of it, that SERVICE.FUNCTION is. Throws CommandFailed
/// if there is no such service, BadCommand if it does not declare the function.
std::pair<Service, std::string> find_function(const CommandContext& context,
                                              const std::string& name);

}  // namespace manager
