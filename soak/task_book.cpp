#include "task_book.h"

#include <fmt/format.h>

#include <algorithm>

#include "manager/json.h"
#include "manager/requests.h"

namespace soak {
namespace {

Check check_of(bool cut) {
    return cut ? Check::kCutAtMostOnce : Check::kAnsweredOnce;
}

// The reply that the library makes of what the service fills in.
std::string expected_reply(const TaskIdentity& task, std::uint32_t transaction) {
    return fmt::format(
        R"({{"opcode":"{}","name":"{}","subsys_id":"{}","req_type":"exec_task","return":{},)"
        R"("func":{{"digest":"{}"}},"transac_id":{},"status": 0,"session_id":{}}})",
        task.opcode, task.function, task.subsystem, task.arguments, task.digest, transaction,
        task.session);
}

}  // namespace

std::uint32_t TaskBook::open(TaskIdentity identity) {
    Task task;
    task.identity = std::move(identity);
    tasks_.emplace(++last_, std::move(task));
    ++in_flight_;
    return last_;
}

std::uint32_t TaskBook::open_rejected() {
    rejected_.insert(++last_);
    return last_;
}

TaskBook::Tasks::iterator TaskBook::find(std::uint32_t transaction, Check check, const char* what) {
    const auto task = tasks_.find(transaction);
    if (task != tasks_.end()) return task;
    if (rejected_.count(transaction) != 0) check = Check::kRejected;
    if (transaction == 0 || transaction > last_) check = Check::kNoStrayReply;
    findings_.fail(check, fmt::format("{} of transaction {}", what, transaction));
    return task;
}

template <class Change>
void TaskBook::change(Tasks::iterator task, Change change) {
    if (task->second.is_waiting()) --in_flight_;
    change(task->second);
    if (task->second.is_waiting()) ++in_flight_;
    if (task->second.is_done()) tasks_.erase(task);
}

void TaskBook::delivered(std::uint32_t transaction, Time time) {
    if (rejected_.count(transaction) != 0) return;
    ++sent_;
    const auto task = tasks_.find(transaction);
    if (task == tasks_.end()) return;  // it was quicker than this news
    task->second.delivered = time;
    task->second.was_delivered = true;
}

void TaskBook::ran(std::uint32_t transaction) {
    const auto task = find(transaction, Check::kAnsweredOnce, "another run");
    if (task == tasks_.end()) return;
    if (task->second.ran) {
        findings_.fail(check_of(task->second.cut),
                       fmt::format("another run of transaction {}", transaction));
        return;
    }
    ++ran_;
    change(task, [](Task& t) { t.ran = true; });
}

void TaskBook::reply_lost(std::uint32_t transaction) {
    const auto task = find(transaction, Check::kAnsweredOnce, "a lost second reply");
    if (task == tasks_.end()) return;
    if (!task->second.cut || task->second.answered || task->second.lost) {
        findings_.fail(check_of(task->second.cut),
                       fmt::format("a lost reply of transaction {}", transaction));
    }
    ++lost_;
    change(task, [](Task& t) { t.lost = true; });
}

void TaskBook::replied(const manager::Packet& reply) {
    const auto message = manager::parse_json(reply.text);
    const auto head = message ? manager::read_reply(*message) : std::nullopt;
    if (!head) {
        findings_.fail(Check::kNoStrayReply, reply.text);
        return;
    }
    const auto transaction = static_cast<std::uint32_t>(head->transaction);
    const auto task = find(transaction, Check::kAnsweredOnce, "another reply");
    if (task == tasks_.end()) return;
    if (task->second.answered || task->second.lost) {
        findings_.fail(check_of(task->second.cut),
                       fmt::format("another reply of transaction {}", transaction));
        return;
    }
    compare(task->second, transaction, reply.text);
    ++answered_;
    if (!task->second.cut) {
        const std::chrono::duration<float, std::milli> latency =
            reply.time - task->second.delivered - task->second.identity.nap;
        latencies_.push_back(latency.count());
    }
    change(task, [](Task& t) { t.answered = true; });
}

void TaskBook::compare(const Task& task, std::uint32_t transaction, const std::string& text) {
    const std::string expected = expected_reply(task.identity, transaction);
    if (text == expected) return;
    findings_.fail(Check::kOwnContents, fmt::format("{} instead of {}", text, expected));
}

void TaskBook::cut(bool by_service) {
    for (auto& [transaction, task] : tasks_) {
        if (!task.cut) ++cut_off_;
        task.cut = true;
        task.cut_by_service = task.cut_by_service || by_service;
    }
    in_flight_ = 0;
}

void TaskBook::drop_undelivered() {
    for (auto task = tasks_.begin(); task != tasks_.end();) {
        const bool gone = !task->second.was_delivered;
        if (gone && task->second.is_waiting()) --in_flight_;
        if (gone && task->second.cut) --cut_off_;
        task = gone ? tasks_.erase(task) : std::next(task);
    }
}

bool TaskBook::is_settled() const {
    return std::all_of(tasks_.begin(), tasks_.end(),
                       [](const auto& entry) { return entry.second.may_never_run(); });
}

void TaskBook::close() {
    for (const auto& [transaction, task] : tasks_) {
        if (task.may_never_run()) {
            ++never_ran_;
            continue;
        }
        const char* const what = !task.ran       ? "no run of transaction {}"
                                 : task.answered ? "a reply without a run of transaction {}"
                                                 : "no reply of transaction {}";
        findings_.fail(check_of(task.cut), fmt::format(fmt::runtime(what), transaction));
    }
    const std::size_t expected = ran_ + never_ran_;
    if (sent_ != expected) {
        findings_.fail(
            Check::kAnsweredOnce,
            fmt::format("{} sent, but {} ran and {} were never read", sent_, ran_, never_ran_));
    }
    if (ran_ != answered_ + lost_) {
        findings_.fail(Check::kAnsweredOnce,
                       fmt::format("{} ran, but {} were answered and the replies of {} were lost",
                                   ran_, answered_, lost_));
    }
}

}  // namespace soak
