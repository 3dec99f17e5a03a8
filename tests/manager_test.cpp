#include "manager/Manager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>
#include <sstream>

#include "manager/commands.h"

namespace {

using namespace manager;
using namespace std::chrono_literals;

constexpr std::size_t kLarge = 524'288;

/// The service's end of a connection.
class Client {
  public:
    Client() {
        sockaddr_un address{AF_UNIX, {}};
        std::string(kDefaultPath).copy(address.sun_path, sizeof(address.sun_path));
        const timeval patience{5, 0};
        const int bytes = 2 * kLarge;
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        // The program under test may need a while until it listens.
        const auto* const at = reinterpret_cast<const sockaddr*>(&address);
        for (int i = 0; i < 500 && connect(socket_.get(), at, sizeof(address)) != 0; ++i)
            usleep(10'000);
    }

    void send(const std::string& text) {
        EXPECT_GE(::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL), 0) << text;
    }

    std::string receive() {
        std::string text(2 * kLarge, '\0');
        const ssize_t size = recv(socket_.get(), text.data(), text.size(), 0);
        if (size < 0) return "nothing came";
        text.resize(static_cast<std::size_t>(size));
        return size == 0 ? "closed" : text;
    }

  private:
    FileDescriptor socket_{socket(AF_UNIX, SOCK_SEQPACKET, 0)};
};

class Simulated : public testing::Test {
  protected:
    void SetUp() override {
        traffic.follow(simulated, console);
        simulated.start();
    }

    /// Carries out commands, a line each, and what clients do, which connect when they first do
    /// something: "A< TEXT" sends, "A> TEXT" receives, "A! " leaves, and "A? TYPE REQUEST =>
    /// ANSWER" sends a packet of the type and receives another one.
    void play(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::string what = line.substr(1, 2);
            if (what == "< ") {
                clients[line[0]].send(line.substr(3));
            } else if (what == "> ") {
                EXPECT_EQ(clients[line[0]].receive(), line.substr(3));
            } else if (what == "! ") {
                clients.erase(line[0]);
            } else if (what == "? ") {
                ask(clients[line[0]], line.substr(3));
            } else {
                parse_command(line)(context);
            }
        }
    }

    static void ask(Client& client, const std::string& text) {
        const std::size_t blank = text.find(' ');
        const std::size_t arrow = text.find(" => ");
        const std::string head = R"({"req_type":")" + text.substr(0, blank) + "\",";
        client.send(head + text.substr(blank + 1, arrow - blank - 1) + "}");
        EXPECT_EQ(client.receive(), head + text.substr(arrow + 4) + "}") << text;
    }

    Console console{false};
    Traffic traffic;
    SimulatedManager simulated;
    Interruption interruption{[] {}};
    CommandContext context{simulated, console, interruption, traffic};
    std::map<char, Client> clients;
};

TEST_F(Simulated, AnswersByTheRules) {
    play(R"(refuse auth 1b
refuse ready
accept ready 1a
A? INIT "any":0 => "service_id":1
A? INIT "any":0 => "service_id":2
A? AUTH "Service_Id":7,"Opcode":26,"api_def":{},"Token":"t" => "opcode":"26","result":0
A? AUTH "Opcode":27 => "opcode":"27","result":-1
A? REDY "Service_Id":7 ,"Opcode":26 => "opcode":"26","result":0
A? REDY "Opcode":27 => "opcode":"27","result":-1
grant CAMERA
grant AUDIO
deny AUDIO
info battery 87 "%"
info disk --error  it's gone
A? PERMISSION "Permissions":["CAMERA","AUDIO"],"QueryId":7 => "QueryId":7,"status":0,"PermRes":["1","0"]
A? INFO_QUERY "QueryId":8,"QueryInfos":["battery"] => "QueryId":8,"QueryInfosRes":["SUCCESS:87 \"%\""]
A? INFO_MNTR "QueryId":9,"QueryInfos":["disk",1] => "QueryId":9,"QueryInfosRes":["ERROR:it's gone","ERROR:unknown"]
refuse init
refuse permission
refuse info
drop ready
A< {"req_type":"REDY","Opcode":26}
A? INIT "any":0 => "service_id":-1
A? PERMISSION "Permissions":["CAMERA"],"QueryId":7 => "QueryId":7,"status":-1,"PermRes":[]
A? INFO_QUERY "QueryId":8,"QueryInfos":["battery"] => "QueryId":8,"QueryInfosRes":["ERROR:refused"])");
    EXPECT_THROW(simulated.send_for_opcode(27, "x"), ManagerError) << "27 was refused";
}

TEST_F(Simulated, DelaysAnswersOfOneKindAndReadsTheLastWordsOfAClientThatLeavesUnreadPackets) {
    const auto begin = std::chrono::steady_clock::now();
    play(R"(delay permission 200
A? AUTH "Opcode":26 => "opcode":"26","result":0
B? AUTH "Opcode":26 => "opcode":"26","result":0
send @2 unread
B< {"req_type":"PERMISSION","Permissions":["X"],"QueryId":2}
B! 
A< {"req_type":"PERMISSION","Permissions":["X"],"QueryId":1}
A? INIT "any":0 => "service_id":1
A> {"req_type":"PERMISSION","QueryId":1,"status":0,"PermRes":["0"]})");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 200ms);
    EXPECT_EQ(simulated.log().size(), 10U) << "all but an answer to the client that left";
    simulated.send_for_opcode(26, "now to the other");
    EXPECT_EQ(clients['A'].receive(), "now to the other");
}

TEST_F(Simulated, LeadsSessionsAndSendsNotices) {
    play(R"(A? AUTH "Opcode":26 => "opcode":"26","result":0
B? AUTH "Opcode":27 => "opcode":"27","result":0
start 5 1a:1,2 0x1A:3
A> {"req_type":"start_session","session_id":5,"transac_id":1,"opcodes":[{"id":"1a","subsystems":[{"id":1},{"id":2}]},{"id":"1a","subsystems":[{"id":3}]}]}
ready 5 1A:1
A> {"req_type":"ready_session","session_id":5,"opcodes":[{"id":"1a","subsystems":[{"id":1}]}]}
end 5
A> {"req_type":"end_session","session_id":5,"transac_id":2,"opcodes":[]}
end 5 1b:1,2
B> {"req_type":"end_session","session_id":5,"transac_id":3,"opcodes":[{"id":27,"subsystems":[{"id":1},{"id":2}]}]}
end 6
A> {"req_type":"end_session","session_id":6,"transac_id":4,"opcodes":[]}
B> {"req_type":"end_session","session_id":6,"transac_id":4,"opcodes":[]}
permission-change "A\"B" granted --session 7 --package com.example
A> {"req_type":"permission_change","sesson_id":"7","permission":"A\"B","status":"1","package":"com.example"}
permission-change B denied
A> {"req_type":"permission_change","sesson_id":"0","permission":"B","status":"0","package":""}
state-change screen 'on "x"' --package "a b" --session 7
A> {"req_type":"state_change","session_id":7,"state":"screen","value":"on \"x\"","package":"a b"}
setting-change volume -3
A> {"req_type":"system_setting_change","session_id":0,"state":"volume","value":"-3","package":""}
send @1 one  {x}
close
A> one  {x}
A> closed
C? INIT "any":0 => "service_id":1)");
    EXPECT_THROW(simulated.send_for_opcode(26, "x"), ManagerError) << "its client is gone";
}

TEST_F(Simulated, SurvivesBadPackets) {
    std::string unanswerable = R"({"req_type":"INFO_QUERY","QueryId":1,"QueryInfos":[1)";
    for (int i = 0; i < 200'000; ++i) unanswerable += ",1";  // the answer is too large to be sent
    const std::vector<std::string> packets{
        "",
        "EXIT",
        "{",
        "[1]",
        std::string(100'000, '['),
        R"({"req_type":1})",
        R"({"req_type":"AUTH","Opcode":"26"})",
        R"({"req_type":"REDY","Opcode":-1})",
        R"({"req_type":"PERMISSION","QueryId":{},"Permissions":["A"]})",
        R"({"req_type":"exec_task","transac_id":{}})",
        unanswerable + "]}"};
    for (const std::string& packet : packets) clients['A'].send(packet);
    play(R"(A? INIT "any":0 => "service_id":1)");
    EXPECT_EQ(simulated.received().size(), packets.size() + 1);
}

TEST_F(Simulated, ExpectLooksOnlyBehindThePacketItFoundLast) {
    play("A< a1\nA< b1\nA< a2\nexpect a2\nA< b3\nA< b2\nexpect /^[ab]2$/");
    EXPECT_FALSE(simulated.expect("1", 50ms)) << "it came before";
    EXPECT_TRUE(simulated.unexpected().empty());
}

TEST_F(Simulated, SendsAndReceivesLargePacketsWithoutWaitingForTheClient) {
    Client& client = clients['A'];
    ASSERT_TRUE(simulated.wait_for_clients(1, 5s));
    for (char c = 'a'; c < 'i'; ++c) simulated.send(1, std::string(kLarge, c));
    for (char c = 'a'; c < 'i'; ++c) ASSERT_TRUE(client.receive() == std::string(kLarge, c));
    client.send(std::string(kLarge, 'z') + "end");
    play("expect /^z.*end$/ 5000");
    EXPECT_THROW(simulated.send(1, std::string(16 * kLarge, 'x')), ManagerError);
}

TEST_F(Simulated, RoutesTasksByOpcodeAndRepliesByTransaction) {
    play(R"(A? AUTH "Opcode":26 => "opcode":"26","result":0
B? AUTH "Opcode":27 => "opcode":"27","result":0)");
    const std::int64_t one = simulated.exec_task({5, 26, 1, "a\"b", R"([{"id":0}])"});
    const std::int64_t two = simulated.exec_task({5, 27, 2, "sub"});
    play(
        R"(A> {"req_type":"exec_task","opcode":"0x1a","subsys_id":1,"session_id":5,"transac_id":1,"func":{"name":"a\"b","num_of_args":1,"args":[{"id":0}]}}
B< {"req_type":"exec_task","transac_id":99,"status": 0}
B< {"req_type":"exec_task","transac_id":2,"status": 0}
B< {"req_type":"exec_task","transac_id":2,"status": 0})");
    EXPECT_EQ(simulated.await_reply(two, 5s).value().packet.client, 2);
    EXPECT_FALSE(simulated.await_reply(one, 50ms));
    play(R"(A< {"req_type":"exec_task","transac_id":1,"status": 0})");
    EXPECT_EQ(simulated.await_any_reply(5s).value().transaction, one);
    EXPECT_FALSE(simulated.await_any_reply(50ms)) << "a reply is returned once";
}

TEST_F(Simulated, StopsAndStartsAgain) {
    EXPECT_THROW(SimulatedManager().start(), ManagerError) << "a live socket is not replaced";
    auto waiting = std::async(std::launch::async, [&] { return simulated.expect("x", 60s); });
    for (std::size_t round = 1; round <= 50; ++round) {
        play("A< 1\nA< 2\nA< 3\nB< 4\nC< 5");
        simulated.stop();
        EXPECT_EQ(simulated.received().size(), round * 5);
        for (const char name : {'A', 'B', 'C'}) {
            EXPECT_EQ(clients[name].receive(), "closed") << "a reset, since something was not read";
        }
        EXPECT_EQ(mknod(kDefaultPath, S_IFSOCK | 0600, 0), 0) << "the socket file was left";
        play("restart\nA! \nB! \nC! ");
    }
    EXPECT_EQ(waiting.wait_for(5s), std::future_status::ready);
    play(R"(A? INIT "any":0 => "service_id":1)");
}

TEST_F(Simulated, SaysWhatIsWrong) {
    for (const auto& [line, message] : std::vector<std::pair<const char*, const char*>>{
             {"start", "SESSION is missing\n    usage: start SESSION OPCODE:SUBSYS"},
             {"start 5 1a:1,", "SUBSYS must be a decimal number"},
             {"start 5 0x:1", "OPCODE must be a hexadecimal number"},
             {"end 5 26", "OPCODE:SUBSYS expected, not \"26\""},
             {"end 5", "no client is connected"},
             {"call 5 1a:1,2 add []", "a call is for one SUBSYS"},
             {"call 5 1a:1 add [1", "ARGS-JSON must be a complete JSON array"},
             {"call 5 1a:1 add [1,,]", "ARGS-JSON is not JSON"},
             {"call --count 0 5 1a:1 add", "--count must be at least 1"},
             {"call 5 1a:1 add [] --fast", "there is no option --fast"},
             {"send @x y", "@CLIENT must be a decimal number"},
             {"send @3 x", "client 3 is not connected"},
             {"info A --error", "TEXT is missing\n    usage: info NAME VALUE|--error TEXT"},
             {"refuse all", "init, auth, ready, permission or info expected, not \"all\""},
             {"refuse init 1a", "only auth and ready can be for one OPCODE"},
             {"expect 'a", "TEXT has no closing '"},
             {"expect \"a\":\"b\"", "a blank must follow the closing \""},
             {"expect /(/", "/(/ is no regular expression"},
             {"close now", "\"now\" is too much"},
         }) {
        try {
            play(line);
            ADD_FAILURE() << line << " was accepted";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(message), std::string::npos) << error.what();
        }
    }
}

/// Returns what the program prints, and its exit status as the last line.
std::string run_program(const std::string& script) {
    const std::string command = VEXON_MANAGER_PROGRAM " --script /dev/stdin 2>&1 <<'END'\n";
    std::FILE* const program = popen((command + script + "\nEND\necho $?").c_str(), "r");
    std::string output;
    for (int c = fgetc(program); c != EOF; c = fgetc(program)) output += static_cast<char>(c);
    pclose(program);
    return output;
}

TEST_F(Simulated, HasAProgramThatCarriesOutAScript) {
    simulated.stop();  // the program takes its place
    auto program = std::async(std::launch::async, run_program, R"(# comment
expect /"AUTH".*26/ 5000
call --timeout 5000 5 1a:1 add [{"id":0, "value":"]\""}]
call 5 1a:2 add --count 2 --in-flight 2
delay init 60000
answer init
restart 10
expect again 5000
quit
bogus)");
    play(R"(A? AUTH "Opcode":26 => "opcode":"26","result":0
A> {"req_type":"exec_task","opcode":"0x1a","subsys_id":1,"session_id":5,"transac_id":1,"func":{"name":"add","num_of_args":1,"args":[{"id":0, "value":"]\""}]}}
A< {"req_type":"exec_task","transac_id":1,"status": 0}
A> {"req_type":"exec_task","opcode":"0x1a","subsys_id":2,"session_id":5,"transac_id":2,"func":{"name":"add","num_of_args":0,"args":[]}}
A> {"req_type":"exec_task","opcode":"0x1a","subsys_id":2,"session_id":5,"transac_id":3,"func":{"name":"add","num_of_args":0,"args":[]}}
A< {"req_type":"exec_task","transac_id":3,"status": 0}
A< {"req_type":"exec_task","transac_id":2,"status": 0}
A> closed
B? INIT "any":0 => "service_id":1
B< again)");
    const std::string output = program.get();
    for (const char* part : {"2 of 2 tasks answered", " client 2 <- again\n", "\n0\n"})
        EXPECT_NE(output.find(part), std::string::npos) << output;
}

TEST(Program, StopsAtTheFirstFailure) {
    EXPECT_NE(run_program("\nexpect a 20\nquit").find("stdin:2: expect a 20\n"), std::string::npos);
    EXPECT_NE(run_program("send x\nquit").find("no client is connected\n1\n"), std::string::npos);
    EXPECT_NE(run_program("\nstrat 5").find("help lists the commands\n2\n"), std::string::npos);
}

}  // namespace
