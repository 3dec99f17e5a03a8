// SPDX-License-Identifier: Apache-2.0
// Runs the tests with a /dev of their own, so that the Manager's real path can be used, by any user
// and by several test processes at a time.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "private_dev/enter_private_dev.h"

namespace {

bool only_lists_tests(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "--gtest_list_tests") return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (!only_lists_tests({argv, argv + argc})) enter_private_dev(VEXON_PRIVATE_DEV, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
