// SPDX-License-Identifier: Apache-2.0
#include "client/link/manager_address.h"

#include <android-base/properties.h>
#include <android/log.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include "client/IVexaClient.h"
#include "client/utility/logging.h"

namespace {

constexpr const char* kDefaultPath = "/dev/socket/vexa";
constexpr const char* kDedicatedPath = "/dev/socket/vexon_one/vexa_one";
constexpr const char* kThreadPrefix = "mirt_";
constexpr std::size_t kThreadPrefixLength = 5;
constexpr const char* kServicePrefix = "vendor.mirt.";
constexpr std::size_t kServicePrefixLength = 12;

using android::base::GetBoolProperty;
using android::base::GetProperty;

struct Names {
    std::string own;
    std::string target;
};

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The prefix is skipped, not checked.
std::string own_name() {
    char name[16] = {};  // the kernel's limit, with the terminating NUL
    if (::prctl(PR_GET_NAME, name) != 0) {
        log_with_priority(ANDROID_LOG_INFO, "Error getting thread name.");
        return "";
    }
    const std::string text = name;
    return text.size() < kThreadPrefixLength ? "" : text.substr(kThreadPrefixLength);
}

Names names_to_compare() {
    Names names{own_name(), GetProperty("vendor.vexon.one.service", "")};
    const std::string override_name = GetProperty("vendor.vexon.one.mirt", "");
    if (starts_with(override_name, kThreadPrefix)) {
        names.target = override_name.substr(kThreadPrefixLength);
    } else if (starts_with(names.target, kServicePrefix)) {
        names.target.erase(0, kServicePrefixLength);
    } else if (names.target == "vendor.modemManager") {
        names.own = names.target = "modemManager";
    }
    return names;
}

bool has_dedicated_sockets(const std::string& build_type) {
    return build_type == "eng" || build_type == "userdebug";
}

}  // namespace

std::string choose_manager_path() {
    if (!has_dedicated_sockets(GetProperty("ro.build.type", ""))) return kDefaultPath;

    const Names names = names_to_compare();
    gIsOneService = starts_with(names.target, names.own);
    const bool dedicated = gIsOneService && !names.target.empty();
    gMarkersEnabled = dedicated && GetBoolProperty("vendor.vexon.one.markers", false);
    return dedicated ? kDedicatedPath : kDefaultPath;
}

sockaddr_un manager_address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path));
    return address;
}
