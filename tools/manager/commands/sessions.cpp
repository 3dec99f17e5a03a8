#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"

namespace manager {
namespace {

struct Session {
    std::int64_t id;
    std::vector<Target> targets;
};

Session take_session_targets(Words& words) {
    // Braces, because they take the words from left to right.
    return {take_session(words), take_targets(words)};
}

}  // namespace

Action parse_start(Words& words) {
    return [session = take_session_targets(words)](CommandContext& context) {
        context.manager.start_session(session.id, session.targets);
    };
}

Action parse_ready(Words& words) {
    return [session = take_session_targets(words)](CommandContext& context) {
        context.manager.ready_session(session.id, session.targets);
    };
}

Action parse_end(Words& words) {
    const std::int64_t session = take_session(words);
    const auto targets = words.at_end() ? std::vector<Target>() : take_targets(words);
    return [session, targets](CommandContext& context) {
        context.manager.end_session(session, targets);
    };
}

}  // namespace manager
