// SPDX-License-Identifier: Apache-2.0
#include "client/services/acknowledgements.h"

#include <stdexcept>
#include <string>

#include "client/link/life.h"
#include "client/utility/json_access.h"

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

// Stores the verdict and wakes the caller that waits for it.
void answer_waiter(const waiter_meta_data<std::int32_t>& waiter, std::int32_t result,
                   AcknowledgementWaits& waits) EXCLUDES(waits.mutex) {
    std::lock_guard<std::mutex> lock(waits.mutex);
    *waiter.result = result;
    *waiter.done = true;
    waiter.cv->notify_one();
}

// The table's lock is held.
template <class Table>
AfterMessage deliver(const Verdict& verdict, const Table& table, AcknowledgementWaits& waits) {
    if (superseded()) return AfterMessage::kEndThread;
    const auto entry = table.find(verdict.opcode);
    if (entry != table.end()) answer_waiter(entry->second, verdict.result, waits);
    return AfterMessage::kClearBuffer;
}

}  // namespace

AfterMessage on_auth(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gAuthMutex);
    return deliver(verdict, gAuth, gAuthWaits);
}

AfterMessage on_regs(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gRegsMutex);
    return deliver(verdict, gRegs, gAuthWaits);
}

AfterMessage on_redy(const Json::Value& message) {
    const Verdict verdict = read_verdict(message);
    std::lock_guard<std::mutex> lock(gReadyMutex);
    return deliver(verdict, gReady, gReadyWaits);
}

std::int32_t await_acknowledgement(const waiter_meta_data<std::int32_t>& waiter,
                                   AcknowledgementWaits& waits,
                                   Life life) NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(waits.mutex);
    const auto entry = waits.waiting.insert(waiter.cv.get()).first;
    waiter.cv->wait(lock, [&] { return *waiter.done || is_over(life) || !gReceiving; });
    waits.waiting.erase(entry);
    if (!*waiter.done) return kNotAnswered;
    *waiter.done = false;
    return *waiter.result;
}
