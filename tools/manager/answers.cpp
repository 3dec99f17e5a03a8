#include "manager/answers.h"

namespace manager {
namespace {

constexpr int kRefused = -1;

}  // namespace

void Answers::Rule::set(bool refused, std::optional<Opcode> opcode) {
    if (!opcode) {
        refuse_all = refused;
        exceptions.clear();
    } else if (refused == refuse_all) {
        exceptions.erase(*opcode);
    } else {
        exceptions.insert(*opcode);
    }
}

bool Answers::refuses(const Request& request) const {
    const Rule& found = rule(request.step);
    const bool is_exception = request.opcode && found.exceptions.count(*request.opcode) != 0;
    return found.refuse_all != is_exception;
}

std::optional<std::string> Answers::answer(const Request& request) {
    if (rule(request.step).silent) return std::nullopt;
    const bool refused = refuses(request);
    if (request.step == Step::Init) return init_answer(refused ? kRefused : ++services_);
    // An answer names its opcode, so a request without one cannot be answered.
    if (!request.opcode) return std::nullopt;
    return step_answer(request.step, *request.opcode, refused ? kRefused : 0);
}

}  // namespace manager
