// SPDX-License-Identifier: Apache-2.0
#include "manager/prompt/prompt.h"

#include <fmt/format.h>
#include <histedit.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <utility>

#include "manager/base/json.h"

namespace manager {
namespace {

char* prompt_text(EditLine*) {
    static char text[] = "manager> ";
    return text;
}

/// Empty if there is no place for it.
std::string history_file() {
    for (const auto& [variable, folder] :
         {std::pair("XDG_STATE_HOME", ""), {"HOME", "/.local/state"}}) {
        const char* const value = std::getenv(variable);
        const bool is_set = value != nullptr && *value != '\0';
        if (is_set) return std::string(value) + folder + "/vexon-manager/history";
    }
    return "";
}

class Prompt {
  public:
    explicit Prompt(CommandContext& context) : context_(context) {
        // The editor reads multibyte characters as the user's locale has them.
        std::setlocale(LC_CTYPE, "");
        history(history_.get(), &event_, H_SETSIZE, 1000);
        history(history_.get(), &event_, H_SETUNIQUE, 1);
        el_set(editor_.get(), EL_CLIENTDATA, this);
        el_set(editor_.get(), EL_PROMPT, prompt_text);
        el_set(editor_.get(), EL_EDITOR, "emacs");
        el_set(editor_.get(), EL_HIST, history, history_.get());
        el_set(editor_.get(), EL_GETCFN, read_character);
        // el_set() would leak copies of the texts.
        el_wset(editor_.get(), EL_ADDFN, L"complete", L"Complete the word", complete);
        el_set(editor_.get(), EL_BIND, "^I", "complete", nullptr);
        el_source(editor_.get(), nullptr);
        if (!file_.empty()) history(history_.get(), &event_, H_LOAD, file_.c_str());
    }
    ~Prompt() {
        if (file_.empty()) return;
        std::error_code error;
        std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), error);
        history(history_.get(), &event_, H_SAVE, file_.c_str());
    }
    Prompt(const Prompt&) = delete;
    Prompt& operator=(const Prompt&) = delete;

    std::optional<std::string> next() {
        Console& console = context_.console;
        console_lock_ = console.lock();
        console.set_redraw([this] { el_set(editor_.get(), EL_REFRESH); });
        int size = 0;
        const char* line = nullptr;
        do {
            cancelled_ = false;
            line = el_gets(editor_.get(), &size);
        } while (cancelled_);
        console.set_redraw({});
        console_lock_.unlock();
        if (line == nullptr || size <= 0) {
            // What is printed next does not belong beside the prompt.
            console.line("");
            return std::nullopt;
        }
        const bool is_blank = line[0] == '\n';
        if (!is_blank) history(history_.get(), &event_, H_ENTER, line);
        std::string text(line, static_cast<std::size_t>(size));
        if (text.back() == '\n') text.pop_back();
        return text;
    }

  private:
    static Prompt& of(EditLine* editor) {
        void* self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        return *static_cast<Prompt*>(self);
    }

    static unsigned char complete(EditLine* editor, int) {
        const LineInfo* const line = el_line(editor);
        const std::string text(line->buffer, line->cursor);
        const auto words = completions(text, of(editor).context_.traffic.services);
        if (words.empty()) return CC_ERROR;
        const std::size_t begun = text.size() - (text.find_last_of(" \t") + 1);
        // The words are sorted: what the first and the last begin with, all others do, too.
        const std::string& first = words.front();
        const std::string& last = words.back();
        const auto end = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
        std::string more = std::string(first.begin(), end).substr(begun);
        if (words.size() == 1 && std::strchr("/.=", first.back()) == nullptr) more += ' ';
        if (!more.empty()) return el_insertstr(editor, more.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        std::string list = "\n";
        for (const std::string& word : words) list += word + "  ";
        std::fputs((list + '\n').c_str(), stdout);
        return CC_REDISPLAY;
    }

    /// Returns 1 for a character, 0 for the end.
    static int read_character(EditLine* editor, wchar_t* character) {
        Prompt& self = of(editor);
        const Interruption& interruption = self.context_.interruption;
        std::mbstate_t state{};
        while (true) {
            self.console_lock_.unlock();
            const bool readable = interruption.wait_readable(STDIN_FILENO);
            // A line that was begun is cancelled by Ctrl-C, the program is at an empty one. Decided
            // before the console is locked, for which a signal that is being noted may wait.
            const LineInfoW* const line = el_wline(editor);
            self.cancelled_ = !readable && line->lastchar != line->buffer && interruption.forgive();
            self.console_lock_.lock();
            if (!readable) {
                if (self.cancelled_) std::fputs("^C\n", stdout);
                return 0;
            }
            char byte = 0;
            if (read(STDIN_FILENO, &byte, 1) != 1) return 0;
            const std::size_t size = std::mbrtowc(character, &byte, 1, &state);
            const bool incomplete = size == static_cast<std::size_t>(-2);
            if (incomplete) continue;
            const bool invalid = size == static_cast<std::size_t>(-1);
            if (invalid) *character = static_cast<unsigned char>(byte);
            return 1;
        }
    }

    CommandContext& context_;
    const std::string file_ = history_file();
    HistEvent event_{};
    std::unique_ptr<History, void (*)(History*)> history_{history_init(), history_end};
    std::unique_ptr<EditLine, void (*)(EditLine*)> editor_{
        el_init("vexon-manager", stdin, stdout, stderr), el_end};
    /// Whether the line that was begun is given up.
    bool cancelled_ = false;
    /// Held while the editor draws, released while it waits for a key.
    std::unique_lock<std::mutex> console_lock_;
};

}  // namespace

LineSource edited_lines(CommandContext& context) {
    return [prompt = std::make_shared<Prompt>(context)] { return prompt->next(); };
}

LineSource file_lines(int file, const Interruption& interruption) {
    return [=, &interruption, buffer = std::string()]() mutable -> std::optional<std::string> {
        std::size_t end = 0;
        while ((end = buffer.find('\n')) == std::string::npos) {
            std::array<char, 65536> chunk;
            const bool readable = interruption.wait_readable(file);
            const ssize_t size = readable ? read(file, chunk.data(), chunk.size()) : 0;
            if (size > 0) {
                buffer.append(chunk.data(), static_cast<std::size_t>(size));
                continue;
            }
            // The last line of a file may have no end, an interrupted one is void.
            if (buffer.empty() || interruption.signal() != 0) return std::nullopt;
            return std::exchange(buffer, {});
        }
        std::string line = buffer.substr(0, end);
        buffer.erase(0, end + 1);
        return line;
    };
}

int run_step(const std::string& name, CommandContext& context, const std::function<void()>& step,
             const std::string& where) {
    int status = kSucceeded;
    std::string message;
    const auto fail = [&](int how, const std::string& why) {
        status = how;
        message = why;
    };
    try {
        step();
    } catch (const BadCommand& error) {
        fail(kBadUsage, error.what());
    } catch (const CommandFailed& error) {
        fail(kCommandFailed, error.what());
    } catch (const ManagerError& error) {
        fail(kCommandFailed, error.what());
    }
    if (const int signal = context.interruption.signal()) {
        fail(kInterrupted + signal, fmt::format("interrupted by signal {}", signal));
    }
    const std::size_t faults = context.traffic.faults;
    if (context.strict && status == kSucceeded && faults > 0) {
        fail(kCommandFailed, fmt::format("services made {} faults, see above", faults));
    }
    std::string result = fmt::format(R"("command":{},"status":{})", json_text(name), status);
    if (status != kSucceeded) result += ",\"error\":" + json_text(message);
    context.console.event("result", result);
    if (status != kSucceeded) context.console.error(where + message);
    return status;
}

int run_command(const std::string& line, CommandContext& context, const std::string& where) {
    Words words(line);
    if (words.at_end() || words.peek() == '#') return kSucceeded;
    return run_step(
        line, context, [&] { execute(line, context); }, where);
}

int run_script(const LineSource& lines, const std::string& name, CommandContext& context) {
    int status = kSucceeded;
    for (int number = 1; status == kSucceeded && !context.quit; ++number) {
        const auto line = lines();
        if (!line) break;
        status = run_command(*line, context, fmt::format("{}:{}: {}\n    ", name, number, *line));
    }
    return status;
}

int run_prompt(const LineSource& lines, CommandContext& context) {
    while (!context.quit) {
        const auto line = lines();
        if (!line) break;
        // An earlier command or line may have been cancelled.
        context.manager.set_waiting(true);
        run_command(*line, context);
        // Ctrl-C has ended the command, not the program.
        context.interruption.forgive();
    }
    return kSucceeded;
}

}  // namespace manager
