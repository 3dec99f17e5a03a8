#include "manager/recording/likeness.h"

#include "manager/base/json.h"

namespace manager {
namespace {

using Degree = Likeness::Degree;

std::set<std::string> member_names(const Json::Value& a, const Json::Value& b) {
    std::set<std::string> names;
    for (const Json::Value* value : {&a, &b}) {
        for (const std::string& name : value->getMemberNames()) names.insert(name);
    }
    return names;
}

std::string difference(const Json::Value& a, const Json::Value& b, const std::string& path,
                       const std::set<std::string>& ignored);

std::string member_difference(const Json::Value& a, const Json::Value& b, const std::string& path,
                              const std::set<std::string>& ignored) {
    for (const std::string& name : member_names(a, b)) {
        if (ignored.count(name) != 0) continue;
        const std::string below = path.empty() ? name : path + '.' + name;
        if (!a.isMember(name) || !b.isMember(name)) return below;
        const std::string found = difference(a[name], b[name], below, ignored);
        if (!found.empty()) return found;
    }
    return {};
}

/// The path of the first difference, empty if there is none.
std::string difference(const Json::Value& a, const Json::Value& b, const std::string& path,
                       const std::set<std::string>& ignored) {
    if (a.isObject() && b.isObject()) return member_difference(a, b, path, ignored);
    const bool are_arrays = a.isArray() && b.isArray() && a.size() == b.size();
    if (!are_arrays) return a == b ? "" : path;
    for (Json::ArrayIndex i = 0; i < a.size(); ++i) {
        const std::string found =
            difference(a[i], b[i], path + '[' + std::to_string(i) + ']', ignored);
        if (!found.empty()) return found;
    }
    return {};
}

}  // namespace

const std::set<std::string>& varying_members() {
    static const std::set<std::string> kNames{"Service_Id", "service_id", "QueryId"};
    return kNames;
}

Likeness compare(const std::string& recorded, const std::string& came,
                 const std::set<std::string>& ignored) {
    if (recorded == came) return {Degree::Same};
    const auto a = parse_json(recorded);
    const auto b = parse_json(came);
    if (!a || !b || !a->isObject() || !b->isObject()) return {Degree::Unlike};
    const Json::Value& transaction = member(*a, "transac_id");
    const bool same_type =
        member(*a, "req_type") == member(*b, "req_type") && transaction == member(*b, "transac_id");
    if (!same_type) return {Degree::Unlike};
    const std::string path = difference(*a, *b, "", ignored);
    if (path.empty()) return {Degree::Same};
    return {transaction.isNull() ? Degree::SameType : Degree::OtherReply, path};
}

}  // namespace manager
