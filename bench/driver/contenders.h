// Who is compared.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "driver/caller.h"
#include "driver/child.h"

namespace bench {

enum class Role { kRival, kStepOfFloor };

// A kind of service, by the name that tables show.
struct Contender {
    const char* name;
    Role role;
};

const std::vector<Contender>& contenders();

// The name of the contender with which all others are compared.
extern const char* const kFloorName;

// A service that runs and is ready for calls.
struct Service {
    std::unique_ptr<Child> child;
    std::unique_ptr<Caller> caller;
};

// Starts the service of a contender, `under` the control of a program unless that is empty. Returns
// nothing where the driver was built without what the contender needs. Needs a /dev/socket of its
// own. Throws CallFailed and std::system_error.
std::optional<Service> start_service(const std::string& name,
                                     const std::vector<std::string>& under);

}  // namespace bench
