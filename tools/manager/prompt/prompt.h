#pragma once

#include <histedit.h>

#include <memory>

#include "manager/prompt/line_source.h"
#include "manager/recording/traffic.h"

namespace manager {

/// The lines a user edits on the terminal, with a history. Lines that the console prints meanwhile
/// appear above the prompt.
class Prompt : public LineSource {
  public:
    /// The context must outlive this object.
    explicit Prompt(CommandContext& context);
    /// Keeps the history for the next time, in the user's state directory.
    ~Prompt() override;
    Prompt(const Prompt&) = delete;
    Prompt& operator=(const Prompt&) = delete;

    std::optional<std::string> next() override;

  private:
    static int read_character(EditLine* editor, wchar_t* character);
    int read_character(wchar_t& character);
    void remember(const char* line);
    static unsigned char complete(EditLine* editor, int key);

    Console& console_;
    const Interruption& interruption_;
    const Services& services_;
    std::unique_ptr<History, void (*)(History*)> history_;
    std::unique_ptr<EditLine, void (*)(EditLine*)> editor_;
    /// Whether the line that was begun is given up.
    bool cancelled_ = false;
    /// Held while the editor draws, released while it waits for a key.
    std::unique_lock<std::mutex> console_lock_;
};

}  // namespace manager
