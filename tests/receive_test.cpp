#include "service_test.h"

namespace {

struct BadMessage {
    const char* name;
    std::string text;
    const char* log_line;
};

// What one message makes fail must touch neither the next message nor a lock.
TEST_F(ServiceTest, BadMessagesAreDroppedWithALogLine) {
    constexpr const char* kNotParsed = "Failed to parse VEXON manager request";
    const BadMessage messages[] = {
        {"not JSON", "hello", kNotParsed},
        {"not an object", "[1]", kNotParsed},
        {"a cut object", R"({"req_type":"INIT")", kNotParsed},
        {"nested too deeply", std::string(4000, '['), kNotParsed},
        {"nested too deeply inside", R"({"a":)" + std::string(4000, '['), kNotParsed},
        {"a NUL first", std::string("\0{}", 3), kNotParsed},
        {"no type", "{}", "Unknown request type '0'"},
        {"unknown type", R"({"req_type":"init"})", "Unknown request type 'init'"},
        {"type of a wrong kind", R"({"req_type":{}})", "Failed to handle message of type '?' ("},
        {"text after a NUL", std::string("{\"req_type\":\"a\"}\0b", 17),
         "Unknown request type 'a'"},
        {"comments", "/* c */{\"req_type\":\"c\"}", "Unknown request type 'c'"},
        {"id of a wrong kind", R"({"req_type":"INIT","service_id":"x"})",
         "Failed to handle message of type 'INIT' ("},
        {"opcode that does not convert", R"({"req_type":"AUTH","opcode":"x","result":0})",
         "Failed to handle message of type 'AUTH' ("},
        {"opcode beyond 32 bits", R"({"req_type":"REDY","opcode":"4294967322","result":0})",
         "Failed to handle message of type 'REDY' (opcode)"},
        {"opcode beyond all bounds", R"({"req_type":"REGS","opcode":"99999999999999999999"})",
         "Failed to handle message of type 'REGS' ("},
        {"opcode of a wrong kind", R"({"req_type":"exec_task","opcode":[]})",
         "Failed to handle message of type 'exec_task' ("},
        {"result beyond 32 bits", R"({"req_type":"AUTH","opcode":"26","result":4294967296})",
         "Failed to handle message of type 'AUTH' ("},
        {"invalid UTF-8", "{\"req_type\":\"\xff\xfe\"}", "Unknown request type '\xff\xfe'"},
    };
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    for (const BadMessage& message : messages) {
        SCOPED_TRACE(message.name);
        log_.clear();
        manager_.send_to_all(message.text);
        ASSERT_NO_FATAL_FAILURE(wait_until_handled());
        EXPECT_TRUE(log_.contains(message.log_line));
    }
    ASSERT_NO_FATAL_FAILURE(offer(0x1b, "1b"));
}

TEST_F(ServiceTest, AcknowledgementsThatNobodyWaitsForAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(init());
    for (const char* type : {"AUTH", "REGS", "REDY"}) {
        manager_.send_to_all(R"({"req_type":")" + std::string(type) +
                             R"(","opcode":"5","result":0})");
    }
    ASSERT_NO_FATAL_FAILURE(offer(5, "5"));
}

// Acknowledgements read their opcode as decimal text up to the first other character.
TEST_F(ServiceTest, AnAcknowledgementAnswersTheOpcodeItsTextConvertsTo) {
    manager_.set_silent(manager::Step::Auth, true);
    ASSERT_NO_FATAL_FAILURE(init());
    auto registering = std::async(std::launch::async, [this] {
        const auto blob = with_header(definition("1", ""));
        return _vexa_svc_register_auth(id(), 1, blob.data(), "token");
    });
    ASSERT_TRUE(expect("AUTH"));
    manager_.send_to_all(R"({"req_type":"AUTH","opcode":"1a","result":0})");
    EXPECT_EQ(0, registering.get());
}

std::string message_of_size(std::size_t size) {
    const std::string head = R"({"req_type":"a)";
    const std::string tail = R"("})";
    return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

TEST_F(ServiceTest, MessagesMayFillTheBufferToTheLastByte) {
    constexpr const char* kWhole = "Unknown request type 'aaa";
    constexpr const char* kCut = "Failed to parse VEXON manager request";
    const auto log_line_for = [this](std::size_t size) -> std::string {
        log_.clear();
        manager_.send_to_all(message_of_size(size));
        EXPECT_TRUE(log_.wait_for("client received!!!", 0s) || log_.wait_for("request", kSoon));
        return log_.contains(kWhole) ? kWhole : log_.contains(kCut) ? kCut : "";
    };
    ASSERT_NO_FATAL_FAILURE(init_and_offer());
    EXPECT_EQ(kWhole, log_line_for(5120));
    EXPECT_EQ(kCut, log_line_for(5121));
    ASSERT_NO_FATAL_FAILURE(wait_until_handled());  // a first start_session makes room
    EXPECT_EQ(kWhole, log_line_for(524288));
    EXPECT_EQ(kCut, log_line_for(524289));
}

TEST_F(ServiceTest, ALongMessageIsSentWholeAndTooLongAOneIsRefused) {
    ASSERT_NO_FATAL_FAILURE(init());
    const std::string text(200'000, 'x');
    EXPECT_EQ(0, vexa_send_to_manager_raw(text.c_str()));
    EXPECT_TRUE(expect_exactly(text));
    EXPECT_EQ(-1, vexa_send_to_manager_raw(std::string(10'000'000, 'x').c_str()));
    EXPECT_TRUE(log_.contains("client NOT able to send msg"));
    EXPECT_EQ(-1, vexa_send_to_manager_raw(nullptr));
}

}  // namespace
