#include "manager/prompt/prompt.h"

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>

#include "manager/prompt/completion.h"

namespace manager {
namespace {

constexpr int kHistorySize = 1000;

char* prompt_text(EditLine*) {
    static char text[] = "manager> ";
    return text;
}

/// Empty if there is no place for it.
std::string history_file() {
    const auto value = [](const char* name) {
        const char* const text = std::getenv(name);
        return std::string(text == nullptr ? "" : text);
    };
    std::string folder = value("XDG_STATE_HOME");
    if (folder.empty() && !value("HOME").empty()) folder = value("HOME") + "/.local/state";
    return folder.empty() ? "" : folder + "/vexon-manager/history";
}

/// Of two words at the ends of a sorted list, and so of all the words between them.
std::string common_beginning(const std::string& first, const std::string& last) {
    const auto end = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
    return {first.begin(), end};
}

}  // namespace

Prompt::Prompt(CommandContext& context)
    : console_(context.console),
      interruption_(context.interruption),
      services_(context.traffic.services),
      history_(history_init(), history_end),
      editor_(el_init("vexon-manager", stdin, stdout, stderr), el_end) {
    // The editor reads multibyte characters as the user's locale has them.
    std::setlocale(LC_CTYPE, "");
    HistEvent event;
    history(history_.get(), &event, H_SETSIZE, kHistorySize);
    history(history_.get(), &event, H_SETUNIQUE, 1);
    el_set(editor_.get(), EL_CLIENTDATA, this);
    el_set(editor_.get(), EL_PROMPT, prompt_text);
    el_set(editor_.get(), EL_EDITOR, "emacs");
    el_set(editor_.get(), EL_HIST, history, history_.get());
    el_set(editor_.get(), EL_GETCFN, static_cast<int (*)(EditLine*, wchar_t*)>(read_character));
    // el_set() would leak copies of the texts.
    el_wset(editor_.get(), EL_ADDFN, L"complete", L"Complete the word", complete);
    el_set(editor_.get(), EL_BIND, "^I", "complete", nullptr);
    el_source(editor_.get(), nullptr);
    const std::string file = history_file();
    if (!file.empty()) history(history_.get(), &event, H_LOAD, file.c_str());
}

Prompt::~Prompt() {
    const std::string file = history_file();
    if (file.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), error);
    HistEvent event;
    history(history_.get(), &event, H_SAVE, file.c_str());
}

std::optional<std::string> Prompt::next() {
    console_lock_ = console_.lock();
    console_.set_redraw([this] { el_set(editor_.get(), EL_REFRESH); });
    int size = 0;
    const char* line = nullptr;
    do {
        cancelled_ = false;
        line = el_gets(editor_.get(), &size);
    } while (cancelled_);
    console_.set_redraw({});
    console_lock_.unlock();
    if (line == nullptr || size <= 0) {
        // What is printed next does not belong beside the prompt.
        console_.line("");
        return std::nullopt;
    }
    remember(line);
    std::string text(line, static_cast<std::size_t>(size));
    if (text.back() == '\n') text.pop_back();
    return text;
}

void Prompt::remember(const char* line) {
    const bool is_blank = line[0] == '\n';
    HistEvent event;
    if (!is_blank) history(history_.get(), &event, H_ENTER, line);
}

unsigned char Prompt::complete(EditLine* editor, int) {
    const LineInfo* const line = el_line(editor);
    const std::string text(line->buffer, line->cursor);
    void* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    const std::vector<std::string> words = completions(text, static_cast<Prompt*>(self)->services_);
    if (words.empty()) return CC_ERROR;
    const std::size_t begun = text.size() - (text.find_last_of(" \t") + 1);
    std::string more = common_beginning(words.front(), words.back()).substr(begun);
    if (words.size() == 1 && std::strchr("/.=", words.front().back()) == nullptr) more += ' ';
    if (!more.empty()) return el_insertstr(editor, more.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    std::string list = "\n";
    for (const std::string& word : words) list += word + "  ";
    std::fputs((list + '\n').c_str(), stdout);
    return CC_REDISPLAY;
}

int Prompt::read_character(EditLine* editor, wchar_t* character) {
    void* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return static_cast<Prompt*>(self)->read_character(*character);
}

/// Returns 1 for a character, 0 for the end.
int Prompt::read_character(wchar_t& character) {
    std::mbstate_t state{};
    while (true) {
        console_lock_.unlock();
        const bool readable = interruption_.wait_readable(STDIN_FILENO);
        console_lock_.lock();
        char byte = 0;
        if (!readable) {
            // A line that was begun is cancelled by Ctrl-C, the program is at an empty one.
            const LineInfoW* const line = el_wline(editor_.get());
            cancelled_ = line->lastchar != line->buffer && interruption_.forgive();
            if (cancelled_) std::fputs("^C\n", stdout);
            return 0;
        }
        if (read(STDIN_FILENO, &byte, 1) != 1) return 0;
        const std::size_t size = std::mbrtowc(&character, &byte, 1, &state);
        const bool incomplete = size == static_cast<std::size_t>(-2);
        if (incomplete) continue;
        const bool invalid = size == static_cast<std::size_t>(-1);
        if (invalid) character = static_cast<unsigned char>(byte);
        return 1;
    }
}

}  // namespace manager
