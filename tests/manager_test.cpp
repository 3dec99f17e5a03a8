#include "manager/Manager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>

#include "manager/commands.h"

namespace manager {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kSoon(5000);
constexpr milliseconds kNever(50);
constexpr std::size_t kLargestPacket = 524'288;

sockaddr_un manager_address() {
    sockaddr_un address{AF_UNIX, {}};
    std::string(kDefaultPath).copy(address.sun_path, sizeof(address.sun_path));
    return address;
}

/// The service's end of a connection.
class Client {
  public:
    Client() {
        const sockaddr_un address = manager_address();
        const timeval patience{5, 0};
        const int bytes = 2 * kLargestPacket;
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        // The program under test may need a while until it listens.
        const auto* const at = reinterpret_cast<const sockaddr*>(&address);
        for (int i = 0; i < 500 && connect(socket_.get(), at, sizeof(address)) != 0; ++i) {
            usleep(10'000);
        }
    }

    void send(const std::string& text) {
        EXPECT_EQ(::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    std::string receive() {
        std::string text(2 * kLargestPacket, '\0');
        const ssize_t size = recv(socket_.get(), text.data(), text.size(), 0);
        if (size < 0) return "nothing came";
        text.resize(static_cast<std::size_t>(size));
        return size == 0 ? "closed" : text;
    }

    std::string ask(const std::string& text) {
        send(text);
        return receive();
    }

    void authenticate(Opcode opcode) {
        ask(R"({"req_type":"AUTH","Service_Id":1,"Opcode":)" + std::to_string(opcode) + "}");
    }

  private:
    FileDescriptor socket_{socket(AF_UNIX, SOCK_SEQPACKET, 0)};
};

class Running : public testing::Test {
  protected:
    void SetUp() override { simulated.start(); }
    SimulatedManager simulated;
};

std::string reply_to(std::int64_t transaction) {
    return R"({"req_type":"exec_task","transac_id":)" + std::to_string(transaction) +
           R"(,"status": 0})";
}

TEST_F(Running, AnswersByTheRules) {
    simulated.refuse(Step::Auth, 27);
    simulated.refuse(Step::Ready);
    simulated.accept(Step::Ready, 26);
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"req_type":"INIT"})", R"({"req_type":"INIT","service_id":1})"},
        {R"({"req_type":"INIT"})", R"({"req_type":"INIT","service_id":2})"},
        {R"({"req_type":"AUTH","Service_Id":7,"Opcode":26,"api_def":{},"Token":"t"})",
         R"({"req_type":"AUTH","opcode":"26","result":0})"},
        {R"({"req_type":"AUTH","Opcode":27})", R"({"req_type":"AUTH","opcode":"27","result":-1})"},
        {R"({"req_type":"REDY","Service_Id":7 ,"Opcode":26})",
         R"({"req_type":"REDY","opcode":"26","result":0})"},
        {R"({"req_type":"REDY","Opcode":27})", R"({"req_type":"REDY","opcode":"27","result":-1})"},
    };
    Client client;
    for (const auto& [request, answer] : cases) EXPECT_EQ(client.ask(request), answer) << request;
    EXPECT_THROW(simulated.send_for_opcode(27, "x"), ManagerError) << "27 was refused";

    simulated.refuse(Step::Init);
    EXPECT_EQ(client.ask(cases[0].first), R"({"req_type":"INIT","service_id":-1})");
    simulated.accept(Step::Init);
    simulated.set_silent(Step::Init, true);
    client.send(cases[0].first);
    EXPECT_EQ(client.ask(cases[4].first), cases[4].second) << "the silent INIT was answered";
}

TEST_F(Running, SurvivesBadPackets) {
    Client client;
    for (const std::string& packet :
         {std::string(), std::string("EXIT"), std::string("{"), std::string("[1]"),
          std::string(100'000, '['), std::string(R"({"req_type":1})"),
          std::string(R"({"req_type":"AUTH","Opcode":"26"})"),
          std::string(R"({"req_type":"REDY","Opcode":-1})"),
          std::string(R"({"req_type":"exec_task","transac_id":{}})")}) {
        client.send(packet);
    }
    EXPECT_EQ(client.ask(R"({"req_type":"INIT"})"), R"({"req_type":"INIT","service_id":1})");
    EXPECT_EQ(simulated.received().size(), 10U);
}

TEST_F(Running, ExpectLooksOnlyBehindThePacketItFoundLast) {
    Client client;
    for (const char* packet : {"a1", "b1", "c1", "a2"}) client.send(packet);
    EXPECT_TRUE(simulated.expect("a2", kSoon)) << "a packet is found though others came first";
    client.send("b2");
    EXPECT_FALSE(simulated.expect("1", kNever));
    EXPECT_EQ(simulated.expect(Matcher::regex("^[ab]2$"), kSoon).value().text, "b2");
    auto later = std::async(std::launch::async, [&] {
        return simulated.expect([](const Packet& p) { return p.text == "c2"; }, kSoon);
    });
    client.send("c2");
    EXPECT_TRUE(later.get());
    EXPECT_TRUE(simulated.unexpected().empty());
}

TEST_F(Running, SendsAndReceivesLargePacketsWithoutWaitingForTheClient) {
    Client client;
    ASSERT_TRUE(simulated.wait_for_clients(1, kSoon));
    for (char c = 'a'; c < 'i'; ++c) simulated.send(1, std::string(kLargestPacket, c));
    for (char c = 'a'; c < 'i'; ++c)
        ASSERT_TRUE(client.receive() == std::string(kLargestPacket, c));
    client.send(std::string(kLargestPacket, 'z') + "end");
    EXPECT_TRUE(simulated.expect(Matcher::regex("^z.*end$"), kSoon));
    EXPECT_THROW(simulated.send(1, std::string(16 * kLargestPacket, 'x')), ManagerError);
}

TEST_F(Running, RoutesTasksByOpcodeAndRepliesByTransaction) {
    Client first;
    Client second;
    first.authenticate(26);
    second.authenticate(27);
    const std::int64_t one = simulated.exec_task({5, 26, 1, "add", R"([{"id":0}])"});
    const std::int64_t two = simulated.exec_task({5, 27, 2, "sub"});
    EXPECT_EQ(first.receive(),
              R"({"req_type":"exec_task","opcode":"0x1a","subsys_id":1,"session_id":5,)"
              R"("transac_id":1,"func":{"name":"add","num_of_args":1,"args":[{"id":0}]}})");
    second.send(reply_to(99));
    second.send(reply_to(two));
    second.send(reply_to(two));
    EXPECT_EQ(simulated.await_reply(two, kSoon).value().packet.client, 2);
    EXPECT_FALSE(simulated.await_reply(one, kNever));
    first.send(reply_to(one));
    EXPECT_EQ(simulated.await_any_reply(kSoon).value().transaction, one);
    EXPECT_FALSE(simulated.await_any_reply(kNever)) << "a reply is returned once";
    EXPECT_THROW(simulated.exec_task({5, 28, 1, "add"}), ManagerError);
    EXPECT_THROW(simulated.exec_task({5, 26, 1, "add", "{}"}), ManagerError);
}

TEST_F(Running, ClosesClientsAfterWhatWasSentToThem) {
    Client client;
    client.authenticate(26);
    simulated.send(1, "last words");
    simulated.close_clients();
    EXPECT_TRUE(simulated.clients().empty());
    EXPECT_THROW(simulated.send_for_opcode(26, "x"), ManagerError);
    EXPECT_EQ(client.receive(), "last words");
    EXPECT_EQ(client.receive(), "closed");
    Client next;
    EXPECT_TRUE(simulated.wait_for_clients(1, kSoon)) << "it still listens";
}

TEST_F(Running, ReadsTheLastWordsOfAClientThatLeavesUnreadPackets) {
    Client staying;
    auto leaving = std::make_unique<Client>();
    staying.authenticate(26);
    leaving->authenticate(26);
    simulated.send_for_opcode(26, "unread");
    leaving->send("EXIT");
    leaving.reset();
    EXPECT_TRUE(simulated.wait_for_disconnect(2, kSoon));
    EXPECT_EQ(simulated.expect("EXIT", kNever).value().client, 2);
    simulated.send_for_opcode(26, "now to the other");
    EXPECT_EQ(staying.receive(), "now to the other");
}

TEST_F(Running, StopsAndStartsAgain) {
    SimulatedManager rival;
    EXPECT_THROW(rival.start(), ManagerError);
    Client client;
    client.ask(R"({"req_type":"INIT"})");
    auto waiting =
        std::async(std::launch::async, [&] { return simulated.expect("x", kSoon * 12); });
    simulated.stop();
    EXPECT_EQ(waiting.wait_for(kSoon), std::future_status::ready);
    EXPECT_EQ(client.receive(), "closed");
    EXPECT_NE(access(kDefaultPath, F_OK), 0);

    FileDescriptor holder(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    const sockaddr_un address = manager_address();
    ASSERT_EQ(bind(holder.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_THROW(simulated.start(), ManagerError) << "a live socket is not replaced";
    holder = FileDescriptor();
    simulated.start();
    EXPECT_EQ(Client().ask(R"({"req_type":"INIT"})"), R"({"req_type":"INIT","service_id":1})");
}

struct Outcome {
    int status;
    std::string output;
};

Outcome run_program(const std::string& script) {
    const std::string file = testing::TempDir() + std::to_string(getpid()) + ".script";
    std::ofstream(file) << script;
    const int status = std::system(
        (VEXON_MANAGER_PROGRAM " --script " + file + " >" + file + ".out 2>&1 </dev/null").c_str());
    std::ostringstream output;
    output << std::ifstream(file + ".out").rdbuf();
    for (const std::string& used : {file, file + ".out"}) std::remove(used.c_str());
    return {WEXITSTATUS(status), output.str()};
}

TEST(Program, CarriesOutAScript) {
    auto program = std::async(std::launch::async, run_program, R"(# comment

expect '"req_type":"INIT"' 5000
expect /"AUTH".*26/ 5000
start 5 1a:1,2 0x1A:3
ready 5 1A:1
call --timeout 5000 5 1a:1 add [{"id":0, "value":"]\""}]
call 5 1a:2 add --count 3 --in-flight 2
refuse auth 1b
send @1 one {x}
send  all  of it
expect "go on" 5000
close
quit
bogus
)");
    Client client;
    EXPECT_EQ(client.ask(R"({"req_type":"INIT"})"), R"({"req_type":"INIT","service_id":1})");
    client.authenticate(26);
    EXPECT_EQ(
        client.receive(),
        R"({"req_type":"start_session","session_id":5,"transac_id":1,"opcodes":[)"
        R"({"id":"1a","subsystems":[{"id":1},{"id":2}]},{"id":"1a","subsystems":[{"id":3}]}]})");
    EXPECT_EQ(client.receive(), R"({"req_type":"ready_session","session_id":5,"opcodes":[)"
                                R"({"id":"1a","subsystems":[{"id":1}]}]})");
    for (std::int64_t transaction = 2; transaction <= 5; ++transaction) {
        const std::string task = client.receive();
        const bool single = transaction == 2;
        EXPECT_NE(task.find(single ? R"("args":[{"id":0, "value":"]\""}]}})" : R"("args":[]}})"),
                  std::string::npos)
            << task;
        client.send(reply_to(transaction));
    }
    EXPECT_EQ(client.receive(), "one {x}");
    EXPECT_EQ(client.receive(), "all  of it");
    EXPECT_EQ(client.ask(R"({"req_type":"AUTH","Opcode":27})"),
              R"({"req_type":"AUTH","opcode":"27","result":-1})");
    client.send("go on");
    EXPECT_EQ(client.receive(), "closed");
    const Outcome outcome = program.get();
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_NE(outcome.output.find("3 of 3 tasks answered"), std::string::npos) << outcome.output;
    EXPECT_NE(outcome.output.find(" client 1 -> one {x}\n"), std::string::npos) << outcome.output;
}

TEST(Program, StopsAtTheFirstFailure) {
    struct Case {
        const char* script;
        int status;
        const char* message;
    };
    for (const Case& c : {
             Case{"sleep 1\nexpect 'a b' 20\nquit", 1,
                  "script:2: expect 'a b' 20\n    expected within 20 ms"},
             Case{"start 5 1a:1\nquit", 1, "no connected client has authenticated opcode 0x1a"},
             Case{"send x", 1, "no client is connected"},
             Case{"send @3 x", 1, "client 3 is not connected"},
             Case{"\nstrat 5", 2, "script:2: strat 5\n    there is no command \"strat\""},
         }) {
        const Outcome outcome = run_program(c.script);
        EXPECT_EQ(outcome.status, c.status) << c.script;
        EXPECT_NE(outcome.output.find(c.message), std::string::npos) << outcome.output;
    }
}

TEST(Commands, SayWhatIsWrong) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"start", "SESSION is missing\n    usage: start SESSION OPCODE:SUBSYS"},
        {"start x 1a:1", "SESSION must be a decimal number"},
        {"start 5 1a:1,", "SUBSYS must be a decimal number"},
        {"start 5 0x:1", "OPCODE must be a hexadecimal number"},
        {"call 5 1a:1,2 add []", "a call is for one SUBSYS"},
        {"call 5 1a:1 add [1", "ARGS-JSON must be a complete JSON array"},
        {"call 5 1a:1 add [1,,]", "ARGS-JSON is not JSON"},
        {"call --count 0 5 1a:1 add", "--count must be at least 1"},
        {"call 5 1a:1 add [] --fast", "there is no option --fast"},
        {"send @x y", "@CLIENT must be a decimal number"},
        {"refuse all", "init, auth or ready expected"},
        {"refuse init 1a", "init is not for one opcode"},
        {"expect 'a", "TEXT has no closing '"},
        {"expect \"a\":\"b\"", "a blank must follow the closing \""},
        {"expect /(/", "/(/ is no regular expression"},
        {"expect a soon", "MS must be a decimal number"},
        {"close now", "\"now\" is too much"},
    };
    for (const auto& [line, message] : cases) {
        try {
            parse_command(line);
            ADD_FAILURE() << line << " was accepted";
        } catch (const BadCommand& error) {
            EXPECT_NE(std::string(error.what()).find(message), std::string::npos) << error.what();
        }
    }
}

}  // namespace
}  // namespace manager
