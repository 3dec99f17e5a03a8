// SPDX-License-Identifier: Apache-2.0
#include "manager/console/console.h"

#include <fmt/chrono.h>
#include <fmt/color.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "manager/base/json.h"
#include "manager/console/json_lines.h"

namespace manager {
namespace {

using std::chrono::system_clock;

constexpr char kClearLine[] = "\r\x1b[K";

bool wants_colour(int fd) {
    return isatty(fd) != 0 && std::getenv("NO_COLOR") == nullptr;
}

std::string time_text(system_clock::time_point time) {
    const auto since_epoch =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    return fmt::format("{:%H:%M:%S}.{:03}", fmt::localtime(system_clock::to_time_t(time)),
                       since_epoch.count() % 1000);
}

std::string description(const Event& event, bool coloured) {
    if (!is_packet(event)) return event.kind == Kind::Connected ? "connected" : "disconnected";
    const bool incoming = event.kind == Kind::FromClient;
    const auto colour = incoming ? fmt::terminal_color::cyan : fmt::terminal_color::green;
    return fmt::format(coloured ? fg(colour) : fmt::text_style(), incoming ? "<-" : "->") + ' ' +
           one_line(event.text);
}

}  // namespace

std::string one_line(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (!is_control(c)) {
            result += c;
        } else {
            result += c == '\n' ? "\\n" : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    return result;
}

std::string aligned(const std::vector<Row>& rows, std::size_t first_number) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line = text.empty() ? "" : "\n";
        for (std::size_t i = 0; i < row.size(); ++i) {
            const char* const form = i < first_number ? "{}{:<{}}" : "{}{:>{}}";
            line += fmt::format(fmt::runtime(form), i == 0 ? "" : "  ", row[i], widths[i]);
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1);
    }
    return text;
}

bool shows_on_terminal() {
    const char* const terminal = std::getenv("TERM");
    const std::string_view name = terminal == nullptr ? "" : terminal;
    return isatty(STDOUT_FILENO) != 0 && !name.empty() && name != "dumb";
}

Console::Console(bool show_events, Format format)
    : show_events_(show_events),
      format_(format),
      is_terminal_(shows_on_terminal() && format == Format::Text),
      colour_output_(wants_colour(STDOUT_FILENO)),
      colour_errors_(wants_colour(STDERR_FILENO)) {}

void Console::show(const Event& event, bool always) {
    if (!show_events_ && !always) return;
    const std::lock_guard lock(mutex_);
    if (is_packet(event) && !status_.empty()) return;
    print(stdout, format_ == Format::Json
                      ? json_line(event)
                      : fmt::format("{} client {} {}", time_text(event.wall_time), event.client,
                                    description(event, colour_output_)));
}

void Console::fault(int client, const std::string& what) {
    event("warning", fmt::format(R"("client":{},"text":{})", client, json_text(what)));
    if (format_ == Format::Text) error(fmt::format("warning: client {}: {}", client, what));
}

void Console::report(const std::string& text, const std::string& name, const std::string& members) {
    line(text);
    event(name, members);
}

void Console::event(const std::string& name, const std::string& members) {
    if (format_ != Format::Json) return;
    const std::lock_guard lock(mutex_);
    print(stdout, json_line(name, members));
}

void Console::line(const std::string& text) {
    if (format_ != Format::Text) return;
    const std::lock_guard lock(mutex_);
    print(stdout, text);
}

void Console::error(const std::string& text) {
    const std::lock_guard lock(mutex_);
    print(stderr, colour_errors_ ? fmt::format(fg(fmt::terminal_color::red), "{}", text) : text);
}

void Console::set_status(std::string text) {
    const std::lock_guard lock(mutex_);
    if (!is_terminal_) return;
    status_ = std::move(text);
    put(stdout, kClearLine + status_);
}

void Console::print(std::FILE* stream, const std::string& text) {
    const bool has_footer = redraw_ || !status_.empty();
    if (has_footer) put(stdout, kClearLine);
    put(stream, text + '\n');
    if (redraw_) redraw_();
    if (!status_.empty()) put(stdout, status_);
}

void Console::put(std::FILE* stream, const std::string& text) {
    if (broken_) return;
    const bool written = std::fputs(text.c_str(), stream) >= 0 && std::fflush(stream) == 0;
    if (written || errno != EPIPE) return;
    broken_ = true;
    if (broken_output_) broken_output_();
}

}  // namespace manager
