#include "findings.h"

#include <fmt/core.h>

#include <algorithm>

namespace soak {
namespace {

// In the order of the checks.
constexpr std::array<const char*, kChecks> kTitles = {
    "each task that was not cut off ran once and was answered once",
    "each task that was cut off ran and was answered at most once",
    "no reply without a task",
    "each reply holds its own task's contents",
    "tasks to be rejected neither ran nor were answered",
    "each session started, got ready and ended once, and left the table",
    "the service was told of each loss and return of the Manager",
    "each query got its own answer, or none around a stop",
    "each notice came once to each service, with its contents",
    "each marker that was sent came",
    "no more threads than after the warm-up",
    "no more descriptors than after the warm-up",
    "memory at most 5 % above that after the warm-up",
    "the service ended with status 0 and wrote nothing to standard error",
    "nothing was waited for in vain",
};

}  // namespace

void Findings::fail(Check check, const std::string& example) {
    Finding& finding = findings_.at(static_cast<std::size_t>(check));
    if (finding.count++ == 0) finding.example = example;
}

void Findings::only_report(Check check, const std::string& reason) {
    findings_.at(static_cast<std::size_t>(check)).tolerance = reason;
}

bool Findings::all_hold() const {
    return std::all_of(findings_.begin(), findings_.end(), [](const Finding& finding) {
        return finding.count == 0 || !finding.tolerance.empty();
    });
}

void Findings::print() const {
    for (std::size_t i = 0; i < kChecks; ++i) {
        const auto& [count, example, tolerance] = findings_.at(i);
        const char* const verdict = count == 0 ? "ok" : tolerance.empty() ? "FAILED" : "(failed)";
        fmt::print("  {:<8} {}\n", verdict, kTitles.at(i));
        if (count > 0) fmt::print("           {} times, first: {}\n", count, example);
        if (!tolerance.empty()) fmt::print("           does not decide: {}\n", tolerance);
    }
}

}  // namespace soak
