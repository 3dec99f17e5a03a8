#include "message_books.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

namespace soak {

std::uint64_t NoticeBook::open() {
    notices_[++last_];
    return last_;
}

void NoticeBook::delivered(std::uint64_t number) {
    ++sent_;
    const auto notice = notices_.find(number);
    if (notice != notices_.end()) notice->second.delivered = true;
}

void NoticeBook::told(const Record& record) {
    const auto notice = notices_.find(record.first);
    if (notice == notices_.end() || !notice->second.services.insert(record.detail).second) {
        findings_.fail(Check::kNotices, fmt::format("notice {} once more", record.first));
        return;
    }
    if (notice->second.services.size() < kServices.size()) return;
    ++complete_;
    notices_.erase(notice);
}

void NoticeBook::told_wrongly(std::uint64_t number) {
    findings_.fail(Check::kNotices, fmt::format("notice {} with wrong contents", number));
}

void NoticeBook::drop_undelivered() {
    for (auto notice = notices_.begin(); notice != notices_.end();) {
        notice = notice->second.delivered ? std::next(notice) : notices_.erase(notice);
    }
}

void NoticeBook::drop_unread() {
    unread_ += notices_.size();
    notices_.clear();
}

void NoticeBook::close() {
    for (const auto& [number, notice] : notices_) {
        findings_.fail(Check::kNotices, fmt::format("notice {} came to {} services", number,
                                                    notice.services.size()));
    }
    if (sent_ == complete_ + unread_ + notices_.size()) return;
    findings_.fail(Check::kNotices, fmt::format("{} sent, but {} came and {} were never read",
                                                sent_, complete_, unread_));
}

void QuestionBook::ready(std::uint64_t time) {
    if (!disturbances_.empty()) disturbances_.back().second = time;
}

void QuestionBook::told(const Record& record) {
    if (record.kind == RecordKind::kAnswered) {
        ++answered_;
        return;
    }
    if (record.kind == RecordKind::kWrongAnswer) {
        ++wrong_;
        findings_.fail(Check::kQuestions, "the answer of another query");
        return;
    }
    ++unanswered_;
    const bool excused =
        std::any_of(disturbances_.begin(), disturbances_.end(), [&](const Span& disturbance) {
            return record.first <= disturbance.second && record.second >= disturbance.first;
        });
    if (excused) return;
    findings_.fail(Check::kQuestions, fmt::format("no answer for {} ms without a stop",
                                                  (record.second - record.first) / 1'000'000));
}

void MarkerBook::meet(std::uint64_t number, Numbers& own, Numbers& other) {
    if (other.erase(number) != 0) {
        ++complete_;
    } else if (!own.insert(number).second) {
        findings_.fail(Check::kMarkers, fmt::format("marker {} once more", number));
    }
}

void MarkerBook::came(const std::string& text) {
    meet(std::strtoull(text.c_str() + kMarkerPrefix.size(), nullptr, 10), early_, missing_);
}

void MarkerBook::close() {
    for (const std::uint64_t number : missing_) {
        findings_.fail(Check::kMarkers, fmt::format("marker {} did not come", number));
    }
    for (const std::uint64_t number : early_) {
        findings_.fail(Check::kMarkers, fmt::format("marker {} came, but was not sent", number));
    }
}

}  // namespace soak
