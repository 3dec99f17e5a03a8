#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>

#include "manager/messages.h"

namespace manager {

/// Decides the Manager's own answers to the requests of clients. Not thread-safe: its owner locks.
class Answers {
  public:
    /// Refuses or accepts the step from now on, for one opcode or, without one, for all of them.
    void refuse(Step step, std::optional<Opcode> opcode) { rule(step).set(true, opcode); }
    void accept(Step step, std::optional<Opcode> opcode) { rule(step).set(false, opcode); }
    void set_silent(Step step, bool silent) { rule(step).silent = silent; }

    bool refuses(const Request& request) const;

    /// Returns the packet to answer with, nothing if the request gets no answer. Counts services.
    std::optional<std::string> answer(const Request& request);

    /// Counts services from 1 again; the rules stay.
    void forget_services() { services_ = 0; }

  private:
    struct Rule {
        void set(bool refused, std::optional<Opcode> opcode);

        bool silent = false;
        bool refuse_all = false;
        /// The opcodes for which the contrary of `refuse_all` holds.
        std::set<Opcode> exceptions;
    };

    Rule& rule(Step step) { return rules_.at(static_cast<std::size_t>(step)); }
    const Rule& rule(Step step) const { return rules_.at(static_cast<std::size_t>(step)); }

    std::array<Rule, 3> rules_;
    std::int64_t services_ = 0;
};

}  // namespace manager
