// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/value.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "manager/simulation/messages.h"

namespace manager {

/// The longest time that anything here waits or is put off; keeps deadlines within the range of the
/// clock and of poll().
constexpr std::chrono::milliseconds kMaxDuration = std::chrono::hours(24);

/// What clients ask for and the Manager answers by itself: the steps of their introduction, and
/// the queries of permissions and of information.
enum class Step { Init, Auth, Ready, Permission, Info };
constexpr std::size_t kStepCount = 5;

/// How the Manager answers by itself. At first it accepts everything at once, grants no permission
/// and knows no information. An answer is made up when its request comes. Thread-safety: every
/// member may be called from any thread.
class Answers {
  public:
    /// Refuses or accepts requests of a step from now on: for the opcode, or for all opcodes if
    /// none is given. Only Auth and Ready have opcodes. The refusal of an Info is "ERROR:refused"
    /// for each name, the others are a -1.
    void refuse(Step step, std::optional<Opcode> opcode = {}) { set_refused(step, opcode, true); }
    void accept(Step step, std::optional<Opcode> opcode = {}) { set_refused(step, opcode, false); }

    /// Sends answers of the step that much later, up to 24 hours, unless their client has gone by
    /// then or the Manager stopped. They hold up nothing else.
    void set_delay(Step step, std::chrono::milliseconds delay) {
        rule(step).delay = std::min(delay, kMaxDuration);
    }

    /// Whether requests of the step get no answer at all, unless by send().
    void set_drop(Step step, bool drop) { rule(step).drop = drop; }

    /// Whether each answer of the step is sent twice.
    void set_twice(Step step, bool twice) { rule(step).twice = twice; }

    void grant(const std::string& permission) { set_result(Step::Permission, permission, "1"); }
    void deny(const std::string& permission) { set_result(Step::Permission, permission, "0"); }

    /// Sets the result of a piece of information, as in "SUCCESS:87". One that was never set gives
    /// "ERROR:unknown".
    void set_info(const std::string& name, const std::string& text) {
        set_result(Step::Info, name, text);
    }

  protected:
    struct Answer {
        std::string text;
        /// 0 if there is no answer.
        int times = 0;
        std::chrono::milliseconds delay{};
        /// The opcode that the client has authenticated by its request.
        std::optional<Opcode> authenticated;
    };
    /// The answer to a message of a client, which has to be refused if it has a fault. Counts
    /// services.
    Answer answer_to(const Json::Value& message, const std::string& fault);

    /// The next service gets the id after this one; the rules stay.
    void count_services_from(std::int64_t last) { services_ = last; }

    /// Whether requests are answered at all.
    std::atomic<bool> answering_{true};

  private:
    struct RequestType;
    struct Rule {
        std::atomic<bool> drop{false};
        std::atomic<bool> twice{false};
        std::atomic<std::chrono::milliseconds> delay{};
        bool refuse_all = false;
        /// The opcodes for which the contrary of `refuse_all` holds.
        std::set<Opcode> exceptions;
    };

    Rule& rule(Step step) { return rules_.at(static_cast<std::size_t>(step)); }
    void set_refused(Step step, std::optional<Opcode> opcode, bool refused);
    void set_result(Step step, const std::string& name, const std::string& text);
    // The caller of all below holds the lock.
    std::string text(const RequestType& type, const Json::Value& message, bool refused,
                     const std::string& fault);
    std::string results(const Json::Value& names, Step step, bool refused) const;

    std::atomic<std::int64_t> services_{0};
    mutable std::mutex mutex_;
    std::array<Rule, kStepCount> rules_;
    /// Of each name in a query.
    std::map<std::pair<Step, std::string>, std::string> results_;
};

}  // namespace manager
