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

class LossTest : public ServiceTest {
  protected:
    void serve_a_task(std::uint32_t session) {
        ASSERT_NO_FATAL_FAILURE(init_and_offer());
        ASSERT_NO_FATAL_FAILURE(open_session(session));
        ASSERT_TRUE(manager_.await_reply(manager_.exec_task({session, kOpcode, 1, "f"}), kSoon));
    }
};

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
    const auto blob = with_header(definition("1c", ""));
    EXPECT_EQ(-1, _vexa_svc_register_auth(id(), 28, blob.data(), "token"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(serve_a_task(5));
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

TEST_F(LossTest, ReconnectionEndsAfter20Seconds) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    const auto start = std::chrono::steady_clock::now();
    manager_.stop();
    ASSERT_TRUE(log_.wait_for("Failed to reconnect to manager due to time out", 30s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_EQ((Calls{"0 26::0 0"}), recorder_.calls()) << "no notice of a reconnection";
    const std::size_t attempts = log_.count("Failed to connect to VEXON Manager (");
    EXPECT_GE(attempts, 100U);
    EXPECT_LE(attempts, 401U);
}

TEST_F(LossTest, DeinitEndsTheReconnection) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    const std::size_t threads = entries_of("/proc/self/task");
    manager_.stop();
    ASSERT_TRUE(log_.wait_for("Failed to connect to VEXON Manager (", kSoon));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(settles_at(1000, threads - 2)) << "neither Manager nor receive thread";
    manager_.start();
    ASSERT_NO_FATAL_FAILURE(serve_a_task(5));
    EXPECT_FALSE(log_.contains(kReconnected));
}

TEST_F(LossTest, InitAfterDeinitServesEachTimeAndLeavesNothingBehind) {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    for (std::uint32_t round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        ASSERT_NO_FATAL_FAILURE(serve_a_task(round));
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
