// SPDX-License-Identifier: Apache-2.0
// The Android log of the test process.

#pragma once

#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

struct LogLine {
    int priority;  // android_LogPriority
    bool has_tag;  // the writer named a tag
    std::string text;
};

// Collects what is written to the log. Starts empty. All objects of one process share the lines;
// the log stays redirected after the last of them, as threads of the library may outlive a test.
class CapturedLog {
  public:
    CapturedLog() { clear(); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<LogLine> lines() const {
        const std::lock_guard<std::mutex> lock(state().mutex);
        return state().lines;
    }

    // Returns whether a line has `text` in it.
    bool contains(const std::string& text) const { return count(text) > 0; }

    // Returns the number of lines that have `text` in them.
    std::size_t count(const std::string& text) const {
        const std::lock_guard<std::mutex> lock(state().mutex);
        return count_locked(text);
    }

    // Waits for `times` lines that have `text` in them, written since the start or clear(). Returns
    // false if there are fewer after `timeout`.
    bool wait_for(const std::string& text, std::chrono::milliseconds timeout,
                  std::size_t times = 1) const {
        std::unique_lock<std::mutex> lock(state().mutex);
        return state().added.wait_for(lock, timeout, [&] { return count_locked(text) >= times; });
    }

    // Returns whether the calling thread is writing a line down.
    static bool is_adding() { return adding; }

    void clear() {
        const std::lock_guard<std::mutex> lock(state().mutex);
        state().lines.clear();
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable added;
        std::vector<LogLine> lines;
    };

    // What liblog puts in place of a missing tag. Only the address counts: the text is gone when a
    // late thread logs while the process exits.
    static inline const char* default_tag = nullptr;

    static inline thread_local bool adding = false;

    // Never destroyed: a thread that nobody waits for may log until the process is gone.
    static State& state() {
        static State* const instance = install();
        return *instance;
    }

    static State* install() {
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(
            [](const __android_logger_data* data, const char*) { default_tag = data->tag; });
        __android_log_write(ANDROID_LOG_ERROR, nullptr, "");
        __android_log_set_logger(add);
        return new State;
    }

    static void add(const __android_logger_data* data, const char* message) {
        const std::lock_guard<std::mutex> lock(state().mutex);
        adding = true;
        state().lines.push_back({data->priority, data->tag != default_tag, message});
        adding = false;
        state().added.notify_all();
    }

    static std::size_t count_locked(const std::string& text) {
        const std::vector<LogLine>& lines = state().lines;
        return static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(),
            [&](const LogLine& line) { return line.text.find(text) != std::string::npos; }));
    }
};
