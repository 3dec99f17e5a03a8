// What the program shows. Thread-safety: every member of Console may be called from any thread.
#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "manager/packet.h"

namespace manager {

/// The text with its control characters escaped, so that it shows as one line.
std::string one_line(const std::string& text);

/// Prints whole lines, and keeps what stands below them on a terminal (a prompt, a status) there.
class Console {
  public:
    /// `show_packets` is whether packet() and connection() print. Colours only terminals, and none
    /// if the environment has NO_COLOR.
    explicit Console(bool show_packets);

    /// Print to standard output; a packet is always one line. While a status is shown no packet is.
    void packet(const Packet& packet);
    void connection(int client, bool connected);
    void line(const std::string& text);

    /// Prints a line to standard error.
    void error(const std::string& text);

    /// Shows the text below the lines if standard output is a terminal; an empty one removes it.
    void set_status(std::string text);

    /// While the lock is held nothing is printed; `redraw`, called under it after a line, shows the
    /// prompt again. An empty function means there is no prompt.
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
    void set_redraw(std::function<void()> redraw) { redraw_ = std::move(redraw); }

  private:
    void print(std::FILE* stream, const std::string& text);

    const bool show_packets_;
    const bool is_terminal_;
    const bool colour_output_;
    const bool colour_errors_;
    std::mutex mutex_;
    std::string status_;
    std::function<void()> redraw_;
};

}  // namespace manager
