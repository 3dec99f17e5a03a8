#include "manager/console.h"

#include <fmt/chrono.h>
#include <fmt/color.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

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

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string arrow(Direction direction, bool coloured) {
    const bool incoming = direction == Direction::FromClient;
    std::string text = incoming ? "<-" : "->";
    if (!coloured) return text;
    return fmt::format(fg(incoming ? fmt::terminal_color::cyan : fmt::terminal_color::green), "{}",
                       text);
}

}  // namespace

std::string one_line(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') {
            result += "\\n";
        } else if (is_control(c)) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        } else {
            result += c;
        }
    }
    return result;
}

Console::Console(bool show_packets)
    : show_packets_(show_packets),
      is_terminal_(isatty(STDOUT_FILENO) != 0),
      colour_output_(wants_colour(STDOUT_FILENO)),
      colour_errors_(wants_colour(STDERR_FILENO)) {}

void Console::packet(const Packet& packet) {
    if (!show_packets_) return;
    const std::lock_guard lock(mutex_);
    if (!status_.empty()) return;
    print(stdout, fmt::format("{} client {} {} {}", time_text(packet.wall_time), packet.client,
                              arrow(packet.direction, colour_output_), one_line(packet.text)));
}

void Console::connection(int client, bool connected) {
    if (!show_packets_) return;
    line(fmt::format("{} client {} {}", time_text(system_clock::now()), client,
                     connected ? "connected" : "disconnected"));
}

void Console::line(const std::string& text) {
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
    std::fputs((kClearLine + status_).c_str(), stdout);
    std::fflush(stdout);
}

void Console::print(std::FILE* stream, const std::string& text) {
    const bool has_footer = redraw_ || !status_.empty();
    if (has_footer) {
        std::fputs(kClearLine, stdout);
        std::fflush(stdout);
    }
    std::fputs((text + '\n').c_str(), stream);
    std::fflush(stream);
    if (redraw_) redraw_();
    if (status_.empty()) return;
    std::fputs(status_.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace manager
