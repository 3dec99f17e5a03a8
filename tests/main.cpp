// Runs the tests with a /dev of their own, so that the Manager's real path can be used, by any user
// and by several test processes at a time.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr const char* kInsideMark = "VEXON_TEST_HAS_PRIVATE_DEV";

bool only_lists_tests(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "--gtest_list_tests") return true;
    }
    return false;
}

[[noreturn]] void enter_private_dev(char** argv) {
    ::setenv(kInsideMark, "1", 1);
    std::vector<char*> command = {const_cast<char*>(VEXON_PRIVATE_DEV), argv[0]};
    for (char** argument = argv + 1; *argument != nullptr; ++argument) command.push_back(*argument);
    command.push_back(nullptr);
    ::execv(command[0], command.data());
    std::perror(command[0]);
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    const bool listing = only_lists_tests({argv, argv + argc});
    if (!listing && std::getenv(kInsideMark) == nullptr) enter_private_dev(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
