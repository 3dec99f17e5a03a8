// The accounts of notices, queries and markers. Each is used by one thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "contract.h"
#include "findings.h"
#include "record.h"

namespace soak {

// Expects each notice once at each service. What the Manager has sent before it stops still comes;
// what a service has not read when it takes leave itself does not.
class NoticeBook {
  public:
    explicit NoticeBook(Findings& findings) : findings_(findings) {}

    // Returns the number for a notice that is about to be sent.
    std::uint64_t open();
    void delivered(std::uint64_t number);
    void told(const Record& record);
    void told_wrongly(std::uint64_t number);

    // The connection has ended: what has not left for the service never will.
    void drop_undelivered();
    // The service has started over by itself.
    void drop_unread();

    bool is_settled() const { return notices_.empty(); }
    void close();

    std::size_t sent() const { return sent_; }
    std::size_t complete() const { return complete_; }
    std::size_t unread() const { return unread_; }

  private:
    struct Notice {
        bool delivered = false;
        std::set<std::uint32_t> services;  // those that were told
    };

    Findings& findings_;
    std::uint64_t last_ = 0;
    std::map<std::uint64_t, Notice> notices_;
    std::size_t sent_ = 0;
    std::size_t complete_ = 0;
    std::size_t unread_ = 0;
};

// Knows when the Manager could not answer, which is the only excuse for a query without an answer.
class QuestionBook {
  public:
    explicit QuestionBook(Findings& findings) : findings_(findings) {}

    // Times as in Record. A disturbance lasts until the service is ready again.
    void disturbed(std::uint64_t begin) { disturbances_.push_back({begin, UINT64_MAX}); }
    void ready(std::uint64_t time);

    void told(const Record& record);

    std::size_t answered() const { return answered_; }
    std::size_t unanswered() const { return unanswered_; }
    std::size_t wrong() const { return wrong_; }

  private:
    using Span = std::pair<std::uint64_t, std::uint64_t>;

    Findings& findings_;
    std::vector<Span> disturbances_;
    std::size_t answered_ = 0;
    std::size_t unanswered_ = 0;
    std::size_t wrong_ = 0;
};

// Pairs the markers that were sent with those that came. Each pair may come in either order.
class MarkerBook {
  public:
    explicit MarkerBook(Findings& findings) : findings_(findings) {}

    void sent(std::uint64_t number) { meet(number, missing_, early_); }
    void came(const std::string& text);

    void close();

    std::size_t complete() const { return complete_; }

  private:
    using Numbers = std::set<std::uint64_t>;
    void meet(std::uint64_t number, Numbers& own, Numbers& other);

    Findings& findings_;
    Numbers missing_;
    Numbers early_;
    std::size_t complete_ = 0;
};

}  // namespace soak
