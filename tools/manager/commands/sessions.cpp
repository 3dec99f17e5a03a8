#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {

const Commands kSessionCommands{
    {"start", "SESSION OPCODE:SUBSYS[,SUBSYS]...",
     "Start a session for the subsystems of one or more opcodes. OPCODE is hexadecimal, SESSION\n"
     "and SUBSYS are decimal.",
     [](Words& words) -> Action {
         const std::int64_t session = take_session(words);
         return [session, targets = take_targets(words)](CommandContext& context) {
             context.manager.start_session(session, targets);
         };
     }},
    {"ready", "SESSION OPCODE:SUBSYS[,SUBSYS]...", "Report a session as ready.",
     [](Words& words) -> Action {
         const std::int64_t session = take_session(words);
         return [session, targets = take_targets(words)](CommandContext& context) {
             context.manager.ready_session(session, targets);
         };
     }},
    {"end", "SESSION [OPCODE:SUBSYS[,SUBSYS]...]...",
     "End a session for these subsystems or, without any, as a whole: for the clients for which\n"
     "it was started, for every client if there are none.",
     [](Words& words) -> Action {
         const std::int64_t session = take_session(words);
         const auto targets = words.at_end() ? std::vector<Target>() : take_targets(words);
         return [session, targets](CommandContext& context) {
             context.manager.end_session(session, targets);
         };
     }},
};

}  // namespace manager
