#include "client/auth_regs_redy.h"

#include <stdexcept>
#include <string>

#include "client/json_access.h"
#include "client/receive.h"

namespace {

struct Verdict {
    std::uint32_t opcode;
    std::int32_t result;
};

// The opcode is decimal text with either sign.
Verdict read_verdict(const Json::Value& message) {
    const long long opcode = std::stoll(text_member(message, "opcode", "0"));
    if (opcode < INT32_MIN || opcode > UINT32_MAX) throw std::out_of_range("opcode");
    return {static_cast<std::uint32_t>(opcode), int_member(message, "result", kNotAnswered)};
}

template <class Table>
AfterMessage deliver(const Verdict& verdict, const Table& table, std::mutex& wait_mutex) {
    if (superseded()) return AfterMessage::kEndThread;
    const auto entry = table.find(verdict.opcode);
    if (entry != table.end()) answer_waiter(entry->second, verdict.result, wait_mutex);
    return AfterMessage::kClearBuffer;
}

}  // namespace

void answer_waiter(const waiter_meta_data<std::int32_t>& waiter, std::int32_t result,
                   std::mutex& wait_mutex) {
    std::lock_guard<std::mutex> lock(wait_mutex);
    *waiter.result = result;
    *waiter.done = true;
    waiter.cv->notify_one();
}

AfterMessage on_auth(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gAuthMutex);
    return deliver(verdict, gAuth, gAuthWaitMutex);
}

AfterMessage on_regs(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gRegsMutex);
    return deliver(verdict, gRegs, gAuthWaitMutex);
}

AfterMessage on_redy(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gReadyMutex);
    return deliver(verdict, gReady, gReadyWaitMutex);
}

std::int32_t await_acknowledgement(const waiter_meta_data<std::int32_t>& waiter,
                                   std::mutex& wait_mutex) NO_THREAD_SAFETY_ANALYSIS {
    // If this turns false later, fail_pending_acknowledgements() finds the waiter.
    const bool can_be_answered = is_receiving();
    std::unique_lock<std::mutex> lock(wait_mutex);
    waiter.cv->wait(lock, [&] { return *waiter.done || !can_be_answered; });
    if (!*waiter.done) return kNotAnswered;
    *waiter.done = false;
    return *waiter.result;
}

void fail_pending_acknowledgements() {
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        if (!superseded()) fail_waiters(gAuth, gAuthWaitMutex);
    }
    std::lock_guard<std::mutex> lock(gReadyMutex);
    if (!superseded()) fail_waiters(gReady, gReadyWaitMutex);
}
