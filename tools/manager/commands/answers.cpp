#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {
namespace {

/// How the result of a piece of information begins, and what the argument after that is called.
struct InfoKind {
    const char* prefix = "SUCCESS:";
    const char* argument = "VALUE";
};

constexpr std::array<Option<InfoKind>, 1> kInfoOptions{{
    {"--error",
     [](Words&, InfoKind& kind) {
         kind = {"ERROR:", "TEXT"};
     }},
}};

Action rule(Words& words, void (SimulatedManager::*change)(Step, std::optional<Opcode>)) {
    const Step step = take_step(words);
    const bool has_opcode = step == Step::Auth || step == Step::Ready;
    if (!has_opcode && !words.at_end())
        throw BadCommand("only auth and ready can be for one OPCODE");
    return [change, step, opcode = take_optional_opcode(words)](CommandContext& context) {
        (context.manager.*change)(step, opcode);
    };
}

Action permission(Words& words, void (SimulatedManager::*change)(const std::string&)) {
    return [change, name = take_text(words, "PERMISSION")](CommandContext& context) {
        (context.manager.*change)(name);
    };
}

Action manner(Words& words, void (SimulatedManager::*change)(Step, bool)) {
    return [change, step = take_step(words)](CommandContext& context) {
        (context.manager.*change)(step, true);
    };
}

}  // namespace

const Commands kAnswerCommands{
    {"grant", "PERMISSION", "Grant a permission to whoever asks from now on. At first none is.",
     [](Words& words) { return permission(words, &SimulatedManager::grant); }},
    {"deny", "PERMISSION", "Deny a permission again.",
     [](Words& words) { return permission(words, &SimulatedManager::deny); }},
    {"info", "NAME VALUE|--error TEXT",
     "Answer queries and monitors of NAME by SUCCESS:VALUE or ERROR:TEXT from now on, with the\n"
     "rest of the line. Other names give ERROR:unknown.",
     [](Words& words) -> Action {
         const std::string name = take_text(words, "NAME");
         InfoKind kind;
         take_options(words, kInfoOptions, kind);
         return [name, text = kind.prefix + words.rest(kind.argument)](CommandContext& context) {
             context.manager.set_info(name, text);
         };
     }},
    {"refuse", "TYPE [OPCODE]",
     "Refuse requests from now on. TYPE is init, auth, ready, permission or info; auth and ready\n"
     "can be refused for one opcode.",
     [](Words& words) { return rule(words, &SimulatedManager::refuse); }},
    {"accept", "TYPE [OPCODE]", "Accept such requests again.",
     [](Words& words) { return rule(words, &SimulatedManager::accept); }},
    {"delay", "TYPE MS",
     "Send the Manager's answers to such requests MS late from now on. Nothing else waits for\n"
     "them. A client that has gone meanwhile gets none.",
     [](Words& words) -> Action {
         const Step step = take_step(words);
         return [step, delay = take_milliseconds(words, "MS")](CommandContext& context) {
             context.manager.set_delay(step, delay);
         };
     }},
    {"drop", "TYPE", "Do not answer such requests from now on.",
     [](Words& words) { return manner(words, &SimulatedManager::set_drop); }},
    {"twice", "TYPE", "Send each answer to such requests twice from now on.",
     [](Words& words) { return manner(words, &SimulatedManager::set_twice); }},
    {"answer", "TYPE",
     "Answer such requests again, at once and once: the end of delay, drop and twice.",
     [](Words& words) -> Action {
         return [step = take_step(words)](CommandContext& context) {
             context.manager.set_drop(step, false);
             context.manager.set_twice(step, false);
             context.manager.set_delay(step, std::chrono::milliseconds(0));
         };
     }},
};

}  // namespace manager
