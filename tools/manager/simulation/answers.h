#pragma once

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "manager/simulation/requests.h"

namespace manager {

/// What the Manager answers, how late and how often.
struct Answer {
    std::string text;
    std::chrono::milliseconds delay;
    int times;
};

/// Decides the Manager's own answers to the requests of clients. Not thread-safe: its owner locks.
class Answers {
  public:
    /// Refuses or accepts the step from now on, for one opcode or, without one, for all of them.
    void refuse(Step step, std::optional<Opcode> opcode) { rule(step).set(true, opcode); }
    void accept(Step step, std::optional<Opcode> opcode) { rule(step).set(false, opcode); }
    void set_delay(Step step, std::chrono::milliseconds delay) { rule(step).delay = delay; }
    void set_drop(Step step, bool drop) { rule(step).drop = drop; }
    void set_twice(Step step, bool twice) { rule(step).twice = twice; }

    void grant(const std::string& permission) { granted_.insert(permission); }
    void deny(const std::string& permission) { granted_.erase(permission); }
    /// `text` is the whole result for the name.
    void set_info(const std::string& name, const std::string& text) { infos_[name] = text; }

    bool refuses(const Request& request) const;

    /// Returns nothing if the request gets no answer. Counts services.
    std::optional<Answer> answer(const Request& request);

    /// The next service gets the id after this one; the rules stay.
    void count_services_from(std::int64_t last) { services_ = last; }

  private:
    struct Rule {
        void set(bool refused, std::optional<Opcode> opcode);

        bool drop = false;
        bool twice = false;
        std::chrono::milliseconds delay{0};
        bool refuse_all = false;
        /// The opcodes for which the contrary of `refuse_all` holds.
        std::set<Opcode> exceptions;
    };

    Rule& rule(Step step) { return rules_.at(static_cast<std::size_t>(step)); }
    const Rule& rule(Step step) const { return rules_.at(static_cast<std::size_t>(step)); }
    std::string text(const Request& request);
    std::vector<std::string> permission_results(const std::vector<std::string>& names) const;
    std::vector<std::string> info_results(const std::vector<std::string>& names) const;

    std::array<Rule, kStepCount> rules_;
    std::set<std::string> granted_;
    std::map<std::string, std::string> infos_;
    std::int64_t services_ = 0;
};

}  // namespace manager
