// SPDX-License-Identifier: Apache-2.0
#include "faults.h"

#include <fcntl.h>

#include <cerrno>
#include <functional>
#include <tuple>

#include "client/IVexaClient.h"
#include "client/queries/query.h"
#include "service_test.h"

namespace {

class FaultTest : public ServiceTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(init_and_open(5));
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());  // no failure shall hit what comes before
    }
};

TEST_F(ServiceTest, InitReportsAThreadThatCannotStart) {
    fail(Call::kPthreadCreate, EAGAIN);
    try {
        vexa_svc_init();
        FAIL() << "must throw";
    } catch (const std::system_error& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find("thread constructor failed"));
        EXPECT_EQ(EAGAIN, error.code().value());
    }
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
}

TEST_F(ServiceTest, InitReportsWhatItCannotOpenOrSend) {
    fail(Call::kSocket, EMFILE);
    EXPECT_EQ(-1, vexa_svc_init());
    EXPECT_TRUE(log_.contains(
        "Failed to connect to VEXON Manager (socket creation failed Too many open files)"));
    fail(Call::kSendTo, ENOBUFS);
    EXPECT_EQ(-1, vexa_svc_init());
    EXPECT_TRUE(log_.contains("Failed to initiate communication with server"));
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    EXPECT_TRUE(manager_.wait_for_clients(1, kSoon));
}

TEST_F(FaultTest, ATaskWhoseThreadOrRecordCannotBeMadeIsDropped) {
    fail(Call::kPthreadCreate, EAGAIN);
    manager_.exec_task({5, kOpcode, 1, "f", R"([{"id":0,"type":"string","value":"released"}])"});
    EXPECT_TRUE(log_.wait_for(
        "Failed to handle message of type 'exec_task' (thread constructor failed", kSoon));
    EXPECT_TRUE(serves(5));

    fail(Call::kCalloc, ENOMEM);
    manager_.exec_task({5, kOpcode, 1, "f"});
    EXPECT_TRUE(log_.wait_for("Failed to handle execute task event", kSoon));
    EXPECT_TRUE(log_.contains("Out of memory"));
    EXPECT_TRUE(serves(5));
}

#if VEXON_OWN_NEW

TEST_F(ServiceTest, AMessageForWhichMemoryIsMissingIsDropped) {
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    fail(Call::kNew, ENOMEM);
    ASSERT_NO_FATAL_FAILURE(open_session(5));  // the larger buffer cannot be had yet
    EXPECT_TRUE(log_.wait_for("Out of memory", kSoon));
    ASSERT_NO_FATAL_FAILURE(open_session(6));

    const std::string text(2 * kLargeBlock, 'a');
    const std::string large = R"({"req_type":")" + text + R"("})";
    manager_.send_to_all(large);
    EXPECT_TRUE(log_.wait_for("Unknown request type 'aaa", kSoon));
    log_.clear();
    fail(Call::kNew, ENOMEM);
    manager_.send_to_all(large);
    EXPECT_TRUE(log_.wait_for("Out of memory", kSoon));
    EXPECT_TRUE(serves(6));
}

TEST_F(ServiceTest, MissingMemoryAfterATaskCostsItsReplyAtMost) {
    ASSERT_NO_FATAL_FAILURE(
        init_and_open(5, [](_vexon_call_info_t* call, vexon_func_call_info_t args) {
            if (args.func_name == "large") call->func.assign(kLargeBlock, 'x');
            may_fail_here();
            fail(Call::kNew, ENOMEM);
            return 0;
        }));
    manager_.exec_task({5, kOpcode, 1, "large"});
    EXPECT_TRUE(log_.wait_for("Out of memory", kSoon));
    for (const std::string& name : {std::string("small"), std::string(kLargeBlock, 'n')}) {
        fail(Call::kNew, 0, 0);
        EXPECT_TRUE(serves(5, name));
    }
}

#endif

TEST_F(FaultTest, SendsThatFailAreLoggedAndHarmless) {
    for (const int error : {EPIPE, ENOBUFS, EAGAIN}) {
        log_.clear();
        fail(Call::kSendTo, error);
        manager_.exec_task({5, kOpcode, 1, "f"});
        EXPECT_TRUE(log_.wait_for("client NOT able to send msg", kSoon));
        EXPECT_TRUE(serves(5));
    }
    fail(Call::kSendTo, 0);
    EXPECT_EQ(0, vexa_send_to_manager_raw("short!")) << "a short send is not noticed";
    EXPECT_TRUE(expect_exactly("short"));

    const std::pair<const char*, const char*> messages[] = {
        {R"({"req_type":"start_session","session_id":6,"opcodes":[]})",
         "Failed to send start session response to VEXON Manager"},
        {R"({"req_type":"end_session","session_id":6,"opcodes":[]})",
         "Failed to send end session response to VEXON Manager"},
    };
    for (const auto& [message, log_line] : messages) {
        fail(Call::kSendTo, ENOBUFS);
        manager_.send_to_all(message);
        EXPECT_TRUE(log_.wait_for(log_line, kSoon));
    }
    fail(Call::kSendTo, ENOBUFS, 2);
    EXPECT_EQ(0, vexa_svc_deinit(id()));
    EXPECT_TRUE(log_.contains("Failed to receive VEXON deinit ack; proceeding anyways"));
    EXPECT_TRUE(log_.contains("Failed to disconnect to manager - proceeding anyways"));
}

TEST_F(FaultTest, ReceiveErrorsCostAPauseAndAResetEndsTheThread) {
    for (const int error : {EINTR, ENOMEM}) {
        const auto start = std::chrono::steady_clock::now();
        fail(Call::kRecvFrom, error);
        manager_.send_to_all("{}");
        EXPECT_TRUE(log_.wait_for(
            "Error receiving msg from manager (" + std::string(std::strerror(error)) + ")", kSoon));
        EXPECT_TRUE(serves(5));
        EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
    }
    fail(Call::kRecvFrom, ECONNRESET);
    manager_.send_to_all("{}");
    EXPECT_TRUE(log_.wait_for(
        "recv_msg_from_mgr: recv failed, exit thread.. in_size = -1, error 104:(Connection reset",
        kSoon));
    EXPECT_FALSE(log_.contains("Communication with manager failed"));
    ASSERT_EQ(0, vexa_svc_deinit(id()));
    ASSERT_NO_FATAL_FAILURE(init_and_open(6));
    EXPECT_TRUE(serves(6));
}

TEST_F(FaultTest, OtherProgramsDoNotInheritTheConnection) {
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(gMgrSocket_fd, F_GETFD));
}

TEST_F(FaultTest, AQueryThatCannotWaitThrowsAndLeavesNothing) {
    // An answer would make the wait unnecessary.
    manager_.set_drop(manager::Step::Info, true);
    manager_.set_drop(manager::Step::Permission, true);
    const std::function<void()> queries[] = {
        [] { vexa_info_query(5, {"x"}); },
        [] { vexa_info_monitor(5, {"x"}); },
        [] { vexa_permission_query(5, {"x"}); },
    };
    for (const auto& query : queries) {
        fail(Call::kCondClockwait, EINVAL);
        try {
            query();
            ADD_FAILURE() << "must throw";
        } catch (const std::system_error& error) {
            EXPECT_NE(std::string::npos,
                      std::string(error.what()).find("condition_variable timed_wait failed"));
        }
    }
    EXPECT_TRUE(serves(5));
    const std::scoped_lock lock(gInfoMutex, gPermMutex);
    EXPECT_TRUE(gInfo.empty());
    EXPECT_TRUE(gPerm.empty());
}

TEST(QueryIds, WrapFromTheLargestTo1) {
    CapturedLog log;
    {
        std::lock_guard<std::mutex> lock(gQueryIdMutex);
        gQueryId = UINT32_MAX - 1;
    }
    EXPECT_EQ(UINT32_MAX, next_query_id());
    EXPECT_FALSE(log.contains("query id have reached the maximum."));
    EXPECT_EQ(1U, next_query_id());
    EXPECT_TRUE(log.contains("query id have reached the maximum."));
}

}  // namespace
