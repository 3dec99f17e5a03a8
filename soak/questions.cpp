#include "questions.h"

#include <vexon2_0.h>

#include <chrono>
#include <random>
#include <string>

#include "contract.h"
#include "reporting.h"

namespace soak {
namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 1ms;
constexpr auto kPauseUnanswered = 20ms;
constexpr unsigned kMostNames = 4;
constexpr unsigned kAskedInVain = 16;    // one of so many while there is no Manager
constexpr unsigned kMarkerInterval = 8;  // questions of a thread

enum class Outcome { kAnswered, kWrong, kUnanswered };

using Numbers = std::vector<std::uint64_t>;

Outcome ask_permissions(unsigned session, const Numbers& numbers) {
    std::vector<std::string> names;
    std::vector<bool> expected;
    for (const std::uint64_t number : numbers) {
        names.push_back(permission_name(number));
        expected.push_back(is_granted(number));
    }
    const std::vector<bool> granted = vexa_permission_query(session, names);
    if (granted == expected) return Outcome::kAnswered;
    return granted.empty() ? Outcome::kUnanswered : Outcome::kWrong;
}

bool is_own_answer(const std::string& text, std::uint64_t number) {
    std::string value;
    const int result = parse_result_of_query_info(text, value);
    return text == info_text(number) && value == info_value(number) &&
           result == (is_known(number) ? 0 : -1);
}

// Nothing has come in time, or the request could not be sent.
bool is_no_answer(const std::vector<std::string>& texts, std::size_t names) {
    return texts.empty() || texts == std::vector<std::string>(names);
}

template <class Ask>
Outcome ask_infos(Ask ask, unsigned session, const Numbers& numbers) {
    std::vector<std::string> names;
    for (const std::uint64_t number : numbers) names.push_back(info_name(number));
    const std::vector<std::string> texts = ask(session, names);
    if (is_no_answer(texts, names.size())) return Outcome::kUnanswered;
    if (texts.size() != numbers.size()) return Outcome::kWrong;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!is_own_answer(texts[i], numbers[i])) return Outcome::kWrong;
    }
    return Outcome::kAnswered;
}

Outcome ask(unsigned kind, unsigned session, const Numbers& numbers) {
    if (kind == 0) return ask_permissions(session, numbers);
    return ask_infos(kind == 1 ? vexa_info_query : vexa_info_monitor, session, numbers);
}

bool ask_and_report(std::mt19937& random) {
    Numbers numbers(1 + random() % kMostNames);
    for (std::uint64_t& number : numbers) number = random() % kNames;
    const std::uint64_t begin = now_ns();
    switch (ask(static_cast<unsigned>(random() % 3), static_cast<unsigned>(random()), numbers)) {
        case Outcome::kAnswered:
            report({RecordKind::kAnswered});
            return true;
        case Outcome::kWrong:
            report({RecordKind::kWrongAnswer});
            return true;
        default:
            report({RecordKind::kUnanswered, 0, begin, now_ns()});
            return false;
    }
}

// 0 is the result of a send; the log gives another when nothing is to be sent.
void log_marker() {
    static std::atomic<std::uint64_t> last{0};
    const std::uint64_t number = ++last;
    const std::string text = std::string(kMarkerPrefix) + std::to_string(number);
    if (vexa_log_marker(text.c_str()) == 0) report({RecordKind::kMarkerSent, 0, number});
}

}  // namespace

Questioners::Questioners(int count, const std::atomic<bool>& connected) : connected_(connected) {
    for (int i = 0; i < count; ++i) {
        threads_.emplace_back([this, i] { ask_on(static_cast<unsigned>(i)); });
    }
}

Questioners::~Questioners() {
    stopping_ = true;
    for (std::thread& thread : threads_) thread.join();
}

void Questioners::ask_on(unsigned seed) {
    std::mt19937 random(seed);
    while (!stopping_) {
        bool answered = true;
        if (connected_ || random() % kAskedInVain == 0) answered = ask_and_report(random);
        if (random() % kMarkerInterval == 0) log_marker();
        std::this_thread::sleep_for(answered && connected_ ? kPause : kPauseUnanswered);
    }
}

}  // namespace soak
