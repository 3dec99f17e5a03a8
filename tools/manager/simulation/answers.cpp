#include "manager/simulation/answers.h"

namespace manager {
namespace {

constexpr int kRefused = -1;
constexpr char kRefusedInfo[] = "ERROR:refused";
constexpr char kUnknownInfo[] = "ERROR:unknown";

/// An answer names the opcode or the query that it answers.
bool is_answerable(const Request& request) {
    const bool is_query = request.step == Step::Permission || request.step == Step::Info;
    if (is_query) return request.query.has_value();
    return request.step == Step::Init || request.opcode.has_value();
}

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
    if (!request.fault.empty()) return true;
    const Rule& found = rule(request.step);
    const bool is_exception = request.opcode && found.exceptions.count(*request.opcode) != 0;
    return found.refuse_all != is_exception;
}

std::optional<Answer> Answers::answer(const Request& request) {
    const Rule& found = rule(request.step);
    if (found.drop || !is_answerable(request)) return std::nullopt;
    return Answer{text(request), found.delay, found.twice ? 2 : 1};
}

std::string Answers::text(const Request& request) {
    const bool refused = refuses(request);
    switch (request.step) {
        case Step::Init:
            return init_answer(refused ? kRefused : ++services_);
        case Step::Permission:
            return refused ? permission_answer(request, kRefused, {})
                           : permission_answer(request, 0, permission_results(request.names));
        case Step::Info:
            return info_answer(
                request, refused ? std::vector<std::string>(request.names.size(), kRefusedInfo)
                                 : info_results(request.names));
        default:
            return acknowledgement(request, refused ? kRefused : 0);
    }
}

std::vector<std::string> Answers::permission_results(const std::vector<std::string>& names) const {
    std::vector<std::string> results;
    for (const std::string& name : names) results.push_back(granted_.count(name) != 0 ? "1" : "0");
    return results;
}

std::vector<std::string> Answers::info_results(const std::vector<std::string>& names) const {
    std::vector<std::string> results;
    for (const std::string& name : names) {
        const auto info = infos_.find(name);
        results.push_back(info == infos_.end() ? kUnknownInfo : info->second);
    }
    return results;
}

}  // namespace manager
