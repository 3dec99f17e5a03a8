#include "manager/commands/arguments.h"
#include "manager/commands/tables.h"

namespace manager {
namespace {

constexpr std::array<Option<Affected>, 2> kOptions{{
    {"--session",
     [](Words& words, Affected& affected) { affected.session = take_session(words, "--session"); }},
    {"--package",
     [](Words& words, Affected& affected) { affected.package = take_text(words, "--package"); }},
}};

constexpr std::array<Choice<bool>, 2> kGrants{{{"granted", true}, {"denied", false}}};

Affected take_affected(Words& words) {
    Affected affected;
    take_options(words, kOptions, affected);
    return affected;
}

Action sending(std::string text) {
    return [text = std::move(text)](CommandContext& context) {
        send_to_every_client(context.manager, text);
    };
}

using ChangeMessage = std::string (*)(const std::string& name, const std::string& value,
                                      const Affected& affected);

Action change(Words& words, ChangeMessage message) {
    const std::string name = take_text(words, "NAME");
    const std::string value = take_text(words, "VALUE");
    return sending(message(name, value, take_affected(words)));
}

}  // namespace

const Commands kNoticeCommands{
    {"permission-change", "PERMISSION granted|denied [--session N] [--package TEXT]",
     "Notify every client of a permission that changed, in a session (0) and for a package (an\n"
     "empty text). Does not change the answers to queries.",
     [](Words& words) {
         const std::string permission = take_text(words, "PERMISSION");
         const bool granted = take_choice(words, kGrants, "granted or denied");
         return sending(permission_change_message(permission, granted, take_affected(words)));
     }},
    {"state-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a state that changed, as permission-change does. A NAME, a VALUE or\n"
     "a TEXT with blanks goes between quotes.",
     [](Words& words) { return change(words, state_change_message); }},
    {"setting-change", "NAME VALUE [--session N] [--package TEXT]",
     "Notify every client of a system setting that changed, as state-change does.",
     [](Words& words) { return change(words, setting_change_message); }},
};

}  // namespace manager
