// SPDX-License-Identifier: Apache-2.0
#include <filesystem>

#include "service_test.h"

namespace {

using Calls = std::vector<std::string>;

constexpr const char* kReconnected = "reconnected to manager, gMgrSocket_fd is ";

std::size_t entries_of(const char* directory) {
    const std::filesystem::directory_iterator begin(directory);
    return static_cast<std::size_t>(std::distance(begin, {}));
}

// Whether the process comes down to this many descriptors and threads.
bool settles_at(std::size_t descriptors, std::size_t threads) {
    const auto deadline = std::chrono::steady_clock::now() + kSoon;
    while (entries_of("/proc/self/fd") > descriptors || entries_of("/proc/self/task") > threads) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

class LossTest : public ServiceTest {};

TEST_F(LossTest, TheServicesAreToldInOrderAndTheProcessCanStartAnew) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_NO_FATAL_FAILURE(offer(27, "1b"));
    manager_.start_session(5, {{27, {2}}, {kOpcode, {1}}});
    ASSERT_TRUE(expect("Success"));
    ASSERT_TRUE(recorder_.wait_for({"2 27::2 5", "2 26::1 5"}));

    manager_.stop();
    const Calls until_lost = {"2 27::2 5", "2 26::1 5", "0 26::0 0", "3 26::1 5", "3 27::2 5"};
    EXPECT_TRUE(recorder_.wait_for(until_lost));
    EXPECT_TRUE(log_.wait_for("Ended session 5 with 2 service (0 failed)", kSoon));
    EXPECT_TRUE(log_.contains("Communication with manager failed ("));
    EXPECT_FALSE(log_.contains(kReconnected));

    manager_.start();
    Calls until_back = until_lost;
    until_back.push_back("1 26::0 0");
    EXPECT_TRUE(recorder_.wait_for(until_back));
    EXPECT_TRUE(log_.contains(kReconnected));

    // Nothing reads the new connection, so that whoever would wait for an answer is told at once.
    EXPECT_EQ(-1, register_service(id(), 28, "1c"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init_and_open(5));
    EXPECT_TRUE(serves(5));
}

TEST_F(LossTest, WithoutAReadyServiceNobodyIsToldAndDeinitSendsNothing) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    ASSERT_EQ(0, vexa_svc_deinit(id()));  // what was ready once does not count
    ASSERT_NO_FATAL_FAILURE(init());
    manager_.close_clients();
    EXPECT_TRUE(log_.wait_for("No sessions due to no ready opcodes.", kSoon, 2));
    EXPECT_TRUE(log_.contains(kReconnected));
    EXPECT_TRUE(recorder_.calls().empty());

    ASSERT_TRUE(manager_.wait_for_clients(1, kSoon));
    const std::size_t received = manager_.received().size();
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_EQ(-3, vexa_svc_deinit(id()));
    std::this_thread::sleep_for(kNotComing);
    EXPECT_EQ(received, manager_.received().size());
}

TEST_F(LossTest, InitAfterDeinitServesEachTimeAndLeavesNothingBehind) {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    for (std::uint32_t round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        ASSERT_NO_FATAL_FAILURE(init_and_open(round));
        ASSERT_TRUE(serves(round));
        ASSERT_EQ(0, vexa_svc_deinit(id()));
        if (round == 0) {
            ASSERT_TRUE(manager_.wait_for_clients(0, kSoon));
            ASSERT_TRUE(log_.wait_for("exit thread..", kSoon));
            descriptors = entries_of("/proc/self/fd");
            threads = entries_of("/proc/self/task");
        }
    }
    EXPECT_TRUE(settles_at(descriptors, threads));
    EXPECT_FALSE(log_.contains("Communication with manager failed"));
    EXPECT_EQ(0U, log_.count("client NOT able to send msg"));
}

}  // namespace
