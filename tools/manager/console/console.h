// SPDX-License-Identifier: Apache-2.0
// What the program shows. Thread-safety: every member of Console may be called from any thread.
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "manager/simulation/event.h"

namespace manager {

/// The text with its control characters escaped, so that it shows as one line.
std::string one_line(const std::string& text);

/// Rows of cells in aligned columns, texts to the left and, from `first_number` on, to the right.
using Row = std::vector<std::string>;
std::string aligned(const std::vector<Row>& rows, std::size_t first_number);

/// Whether standard output is a terminal on which the cursor can be moved.
bool shows_on_terminal();

/// What standard output is for: people, or programs, which get a JSON object on each line.
enum class Format { Text, Json };

/// Prints whole lines, and keeps what stands below them on a terminal (a prompt, a status) there.
class Console {
  public:
    /// `show_events` is whether show() prints. Colours only terminals, and none if the environment
    /// has NO_COLOR.
    explicit Console(bool show_events, Format format = Format::Text);

    Format format() const { return format_; }

    /// Prints the event, on one line. While a status is shown no packet is. `always` prints one
    /// that would not be.
    void show(const Event& event, bool always = false);

    /// Tells of what is wrong with what a client sent.
    void fault(int client, const std::string& what);

    /// Prints what a command found out: `text`, or the event with these members as json_line()
    /// takes them.
    void report(const std::string& text, const std::string& event, const std::string& members);

    /// Prints only as JSON, or only as text.
    void event(const std::string& event, const std::string& members);
    void line(const std::string& text);

    /// Prints a line to standard error.
    void error(const std::string& text);

    /// Shows the text below the lines if standard output is a terminal; an empty one removes it.
    void set_status(std::string text);

    /// Has `report` called, once, when nobody reads standard output any more. Nothing is printed
    /// from then on. It must not call the console.
    void set_broken_output(std::function<void()> report) { broken_output_ = std::move(report); }

    /// Whether it has been, or would have been.
    bool is_broken() const { return broken_; }

    /// While the lock is held nothing is printed; `redraw`, called under it after a line, shows the
    /// prompt again. An empty function means there is no prompt.
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
    void set_redraw(std::function<void()> redraw) { redraw_ = std::move(redraw); }

  private:
    // The caller holds the lock.
    void print(std::FILE* stream, const std::string& text);
    void put(std::FILE* stream, const std::string& text);

    const bool show_events_;
    const Format format_;
    const bool is_terminal_;
    const bool colour_output_;
    const bool colour_errors_;
    std::mutex mutex_;
    std::atomic<bool> broken_{false};
    std::string status_;
    std::function<void()> redraw_;
    std::function<void()> broken_output_;
};

}  // namespace manager
