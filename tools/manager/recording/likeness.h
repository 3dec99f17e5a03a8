#pragma once

#include <set>
#include <string>

namespace manager {

/// How a packet that came compares with one that was recorded.
struct Likeness {
    enum class Degree {
        /// About something else.
        Unlike,
        /// The reply to the same task, but not the same reply: the one that was recorded will not
        /// come any more.
        OtherReply,
        /// Of the same type, but with other contents: the one that was recorded may still come.
        SameType,
        Same,
    };
    Degree degree;
    /// The first member that differs, as in func.celsius, if the type is the same.
    std::string difference = {};
};

/// The members that differ from one run to the next: the ids of services and of queries.
const std::set<std::string>& varying_members();

/// Compares two packets. JSON is the same if all members have the same values, in whatever order,
/// apart from those, at any depth, whose names are in `ignored`; other texts if they are equal. The
/// type is "req_type" and, where there is one, "transac_id".
Likeness compare(const std::string& recorded, const std::string& came,
                 const std::set<std::string>& ignored);

}  // namespace manager
