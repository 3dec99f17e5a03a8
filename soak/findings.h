// What the soak test has found wrong. Used by one thread.

#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace soak {

enum class Check {
    kAnsweredOnce,
    kCutAtMostOnce,
    kNoStrayReply,
    kOwnContents,
    kRejected,
    kSessions,
    kLossTold,
    kQuestions,
    kNotices,
    kMarkers,
    kThreads,
    kDescriptors,
    kMemory,
    kService,
    kProgress,
};
constexpr std::size_t kChecks = static_cast<std::size_t>(Check::kProgress) + 1;

class Findings {
  public:
    // Notes that a check failed; the first `example` of each is kept.
    void fail(Check check, const std::string& example);

    // The check is still made and shown, but does not decide.
    void only_report(Check check, const std::string& reason);

    // Returns whether none that decides has failed.
    bool all_hold() const;

    void print() const;

  private:
    struct Finding {
        std::size_t count = 0;
        std::string example;
        std::string tolerance;
    };

    std::array<Finding, kChecks> findings_;
};

}  // namespace soak
