// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/Manager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <sstream>

#include "manager/base/json.h"
#include "manager/commands/commands.h"
#include "manager/console/json_lines.h"
#include "manager/prompt/prompt.h"
#include "manager/recording/replay.h"

namespace {

using namespace manager;
using namespace std::chrono_literals;

constexpr std::size_t kLarge = 524'288;
// Each test has a /dev of its own.
constexpr char kFile[] = "/dev/socket/recording";

constexpr char kLamp[] =
    R"({"Vexon":{"opcode":"1a","name":"lamp","subsystems":[{"id":3}],"functions":[
{"name":"set_scene","args":[{"id":0,"name":"scene","type":"struct","members":[
{"id":0,"name":"name","type":"string"},
{"id":1,"name":"zones","type":"vector","vec_type":"uint8"}]},
{"id":1,"name":"seconds","type":"double","optional":true}],
"results":[{"name":"lit","type":"boolean"}]},
{"name":"off","args":[{"id":0,"name":"who","type":"string"},{"id":1,"name":"at","type":"vector","vec_type":"struct","members":[{"id":0,"name":"x","type":"int8"}]}]}]}})";

/// The service's end of a connection.
class Client {
  public:
    Client() {
        sockaddr_un address{AF_UNIX, {}};
        std::string(kDefaultPath).copy(address.sun_path, sizeof(address.sun_path));
        const timeval patience{30, 0};  // in an emulator, 10 s are not rare
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

    /// Returns whether there was room for it.
    bool try_to_send(const std::string& text) {
        return ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
    }

    std::string receive() {
        std::string text(2 * kLarge, '\0');
        const ssize_t size = recv(socket_.get(), text.data(), text.size(), 0);
        if (size < 0) return errno == ECONNRESET ? "reset" : "nothing came";
        text.resize(static_cast<std::size_t>(size));
        return size == 0 ? "closed" : text;
    }

  private:
    FileDescriptor socket_{socket(AF_UNIX, SOCK_SEQPACKET, 0)};
};

/// Returns what the action complains of, or that it does not.
template <typename Action>
std::string complaint(const Action& action) try {
    action();
    return "no complaint";
} catch (const std::runtime_error& error) {
    return error.what();
}

std::string one_line_of(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return text;
}

void expect_part(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is not in " << text;
}

class Simulated : public testing::Test {
  protected:
    void SetUp() override {
        traffic.follow(simulated, console);
        simulated.start();
    }

    /// Carries out commands, a line each, and what clients do, which connect when they first do
    /// something: "A+ " does nothing else, "A< TEXT" sends, "A> TEXT" receives, "A! " leaves, and
    /// "A? TYPE REQUEST => ANSWER" sends a packet of the type and receives another one.
    void play(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::string what = line.substr(1, 2);
            if (what == "+ ") {
                clients[line[0]];
            } else if (what == "< ") {
                clients[line[0]].send(line.substr(3));
            } else if (what == "> ") {
                EXPECT_EQ(clients[line[0]].receive(), line.substr(3));
            } else if (what == "! ") {
                clients.erase(line[0]);
            } else if (what == "? ") {
                ask(clients[line[0]], line.substr(3));
            } else {
                execute(line, context);
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
    play(R"(twice permission
A? PERMISSION "Permissions":["X"],"QueryId":3 => "QueryId":3,"status":0,"PermRes":["0"]
A> {"req_type":"PERMISSION","QueryId":3,"status":0,"PermRes":["0"]}
twice init
A? INIT "any":0 => "service_id":2
A> {"req_type":"INIT","service_id":2}
answer init
A? INIT "any":0 => "service_id":3
A? AUTH "Opcode":27 => "opcode":"27","result":0)");
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

TEST_F(Simulated, ResetsOnlyClientsOfWhichAPacketIsUnreadAndOnlyWhenItEndsAbruptly) {
    const std::string unread = "\nreading off\nA< 1\nA< 2\n";
    for (const auto& [what, seen] :
         std::vector<std::pair<std::string, const char*>>{{unread + "close", "closed"},
                                                          {unread + "restart", "closed"},
                                                          {unread + "close --abrupt", "reset"},
                                                          {unread + "restart 10 --abrupt", "reset"},
                                                          {unread + "restart --abrupt 10", "reset"},
                                                          {"\nclose --abrupt", "closed"},
                                                          {"\nrestart --abrupt", "closed"}}) {
        const std::size_t received = simulated.received().size();
        const bool reads_all = what.find("--abrupt") == std::string::npos;
        play("A< 0\nexpect 0 10000\nB< 0\nexpect 0 10000" + what);
        EXPECT_EQ(clients['A'].receive(), seen) << what;
        EXPECT_EQ(clients['B'].receive(), "closed") << what;
        EXPECT_EQ(simulated.received().size() - received, reads_all ? 4U : 2U) << what;
        play("reading on\nA! \nB! ");
    }
    simulated.set_reading(false);
    play("C< unread");
    ASSERT_TRUE(simulated.wait_for_clients(1, 10s));
    simulated.stop(Ending::Abrupt);
    EXPECT_EQ(clients['C'].receive(), "reset");
}

TEST_F(Simulated, ReadsNothingWhileReadingIsOffAndAllOfItAfterwards) {
    play("A< 0\nexpect 0 10000\nreading off\nsend to A\nA> to A");
    Client& client = clients['A'];
    std::size_t sent = 0;
    while (client.try_to_send(std::string(1000, 'x'))) ++sent;
    EXPECT_GT(sent, 0U);
    EXPECT_EQ(simulated.received().size(), 1U);
    play("reading on\nA< end\nexpect end 10000");
    EXPECT_EQ(simulated.received().size(), sent + 2);
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

TEST_F(Simulated, RefusesAnAuthAndEndsACallThatAreNoJson) {
    play(R"(A< {"req_type":"AUTH","Service_Id":1,"Opcode":26,"api_def":{},"Token":"a"b"}
A> {"req_type":"AUTH","opcode":"26","result":-1,"reason":"the token is no text of JSON"}
A< {"req_type":"AUTH","Service_Id":1,"Opcode":26,"api_def":{"a":"b"c"},"Token":"t"}
A> {"req_type":"AUTH","opcode":"26","result":-1,"reason":"the definition is no JSON"})");
    EXPECT_THROW(simulated.send_for_opcode(26, "x"), ManagerError) << "it was refused";
    EXPECT_EQ(traffic.faults, 2U);
    play(R"(A? AUTH "Opcode":26 => "opcode":"26","result":0)");
    const std::int64_t task = simulated.exec_task({5, 26, 1, "f"});
    play(R"(A< {"req_type":"exec_task","func":{"a":"b"c"},"transac_id":)" + std::to_string(task) +
         R"(,"status": 0})");
    const auto reply = simulated.await_reply(task, 5s);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->status);
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
    const auto start_another = [] { SimulatedManager().start(); };
    const std::string holder = "process " + std::to_string(getpid()) + " (vexon_manager_t";
    expect_part(complaint(start_another), holder);
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
    unlink(kDefaultPath);
    std::ofstream{kDefaultPath};
    expect_part(complaint(start_another), "not a socket");
    simulated.stop();
    EXPECT_EQ(unlink(kDefaultPath), 0) << "a file that is not its own was removed";
    simulated.start();
    clients.clear();
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
             {"replay /dev/null", "/dev/null is no recording"},
             {"replay /nowhere", "cannot read /nowhere"},
             {"record /nowhere/file", "cannot write /nowhere/file"},
             {"close now", "\"now\" is too much"},
             {"restart --abrupt 5 5", "\"5\" is too much"},
             {"reading maybe", "off or on expected, not \"maybe\""},
         }) {
        expect_part(complaint([&, text = line] { play(text); }), message);
    }
}

TEST_F(Simulated, ShowsAndCallsWhatAServiceDeclares) {
    play(R"(A? INIT "any":0 => "service_id":1
A? AUTH "Service_Id":1,"Opcode":26,"Token":"t","api_def":)" +
         one_line_of(kLamp) + R"( => "opcode":"26","result":0
A? REDY "Service_Id":1,"Opcode":26 => "opcode":"26","result":0)");
    const auto called = [&](const std::string& line) {
        return std::async(std::launch::async,
                          [this, line] { return complaint([&] { execute(line, context); }); });
    };
    // While the service has more to receive than its socket holds.
    const auto called_behind_others = [&](const std::string& line) {
        constexpr int kOthers = 8;
        const std::string other(kLarge, 'x');
        for (int i = 0; i < kOthers; ++i) simulated.send_to_all(other);
        auto call = called(line);
        EXPECT_EQ(call.wait_for(200ms), std::future_status::timeout);
        for (int i = 0; i < kOthers; ++i) EXPECT_TRUE(clients['A'].receive() == other);
        return call;
    };
    const std::string task =
        R"(A> {"req_type":"exec_task","opcode":"0x1a","subsys_id":3,"session_id":1000,"transac_id":)";
    const std::string reply =
        R"(A< {"opcode":"0x1a","req_type":"exec_task","return":0,"transac_id":)";
    auto first = called_behind_others(
        R"(call lamp.set_scene seconds=2.50 scene='{"zones":[1, 255],"name":"\u00fc"}')");
    play(
        R"(A> {"req_type":"start_session","session_id":1000,"transac_id":1,"opcodes":[{"id":"1a","subsystems":[{"id":3}]}]}
A< {"req_type":"start_session","session_id":1000,"Result":"Success","opcodes":[{"id":"0x0000001a","subsystems":[{"id":3}]}]}
A> {"req_type":"ready_session","session_id":1000,"opcodes":[{"id":"1a","subsystems":[{"id":3}]}]}
)" + task +
        R"(2,"func":{"name":"set_scene","num_of_args":2,"args":[{"id":0,"type":"struct","members":[{"id":0,"type":"string","value":"\u00fc"},{"id":1,"type":"vector","vec_type":"uint8","value":[1, 255]}]},{"id":1,"type":"double","value":2.50}]}}
)" + reply +
        R"(2,"status": 0,"name":"set_scene","func":{"lit":true}})");
    EXPECT_EQ(first.get(), "no complaint");
    EXPECT_EQ(traffic.faults, 0U);

    // The session is used again, and an optional argument may be left out.
    auto second = called_behind_others(R"(call 1a.set_scene {"name":"","zones":[]})");
    play(
        task +
        R"(3,"func":{"name":"set_scene","num_of_args":1,"args":[{"id":0,"type":"struct","members":[{"id":0,"type":"string","value":""},{"id":1,"type":"vector","vec_type":"uint8","value":[]}]}]}}
)" + reply +
        R"(3,"status": -2,"name":"set_scene","func":{"error":"dark"}})");
    expect_part(second.get(), "set_scene replied with status -2, not 0: dark");

    auto third = called(R"(call lamp.off --status -2 "a=\"b" [{"x":-128}])");
    play(
        task +
        R"(4,"func":{"name":"off","num_of_args":2,"args":[{"id":0,"type":"string","value":"a=\"b"},{"id":1,"type":"vector","vec_type":"struct","value":[{"members":[{"id":0,"type":"int8","value":-128}]}]}]}}
)" + reply +
        R"(4,"status": -2,"name":"off","func":{"error":"dark"}})");
    EXPECT_EQ(third.get(), "no complaint");

    auto left = called("call lamp.off x [] --timeout 60000");
    play(
        task +
        R"(5,"func":{"name":"off","num_of_args":2,"args":[{"id":0,"type":"string","value":"x"},{"id":1,"type":"vector","vec_type":"struct","value":[]}]}}
A! )");
    expect_part(left.get(), "expected a reply of off");
}

TEST_F(Simulated, SaysWhatIsWrongWithACallBeforeAnythingIsSent) {
    play(R"(A? INIT "any":0 => "service_id":1
A? AUTH "Service_Id":1,"Opcode":26,"Token":"t","api_def":)" +
         one_line_of(kLamp) + R"( => "opcode":"26","result":0)");
    expect_part(complaint([&] { play("call lamp.off x []"); }), "lamp is not ready");
    play(R"(A? REDY "Service_Id":1,"Opcode":26 => "opcode":"26","result":0)");
    const std::size_t packets = simulated.log().size();
    for (const auto& [line, message] : std::vector<std::pair<const char*, const char*>>{
             {"call desk.off", "there is no service \"desk\"; there is lamp"},
             {"describe desk", "there is no service \"desk\""},
             {"call lamp.on", "lamp declares no function \"on\"; it declares set_scene, off"},
             {"call lamp.off x",
              "at is missing: struct {x: int8}[]\n    call lamp.off x\n"
              "                   ^\n    off(who: string, at: struct"},
             {"call lamp.off x [] y", "off takes 2 arguments"},
             {"call lamp.off x who=y", "who is given twice"},
             {"call lamp.off when=1",
              "no argument \"when\"\n    call lamp.off when=1\n"
              "                  ^"},
             {"call lamp.off x [{\"x\":128}]",
              "at[0].x has to be int8, -128 to 127, not 128\n"
              "    call lamp.off x [{\"x\":128}]\n"
              "                          ^"},
             {"call lamp.off x [{\"x\":1,\"y\":2}]", "at[0].y is not declared"},
             {"call lamp.off x [{}]", "at[0].x is missing"},
             {"call lamp.off x [1,]", "at has to be struct {x: int8}[]: "},
             {"call lamp.off x at=[007]", "at has to be JSON"},
             {"call lamp.set_scene seconds=fast", "seconds has to be double"},
             {"call lamp.set_scene '{\"name\":1,\"zones\":[]}'",
              "scene.name has to be string, not 1"},
             {"call lamp.off x [] --session 5", "session 5 is not started for lamp"},
             {"call lamp.off x [] --status x", "--status must be a decimal number"}}) {
        expect_part(complaint([&, text = line] { play(text); }), message);
    }
    EXPECT_EQ(simulated.log().size(), packets);

    for (const auto& [result, opcodes] :
         std::vector<std::pair<std::string, std::string>>{{"Failed", "[]"}, {"Success", "[]"}}) {
        auto refused = std::async(std::launch::async, [&] {
            return complaint([&] { execute("call lamp.off x []", context); });
        });
        clients['A'].receive();
        const std::string number = result == "Failed" ? "1000" : "1001";
        clients['A'].send(R"({"req_type":"start_session","session_id":)" + number +
                          R"(,"Result":")" + result + R"(","opcodes":)" + opcodes + "}");
        expect_part(refused.get(), "lamp refused session " + number);
    }
}

TEST_F(Simulated, ReplaysARecordingAndNoticesDifferences) {
    play("record " + std::string(kFile) + R"(
A? INIT "any":0 => "service_id":1
A? PERMISSION "QueryId":7,"Permissions":["X"] => "QueryId":7,"status":0,"PermRes":["0"]
send @1 {"req_type":"exec_task","transac_id":5}
send @1 both
A< {"req_type":"exec_task","transac_id":5,"func":{"out":[1]}}
A< {"req_type":"exec_task","transac_id":6,"func":{}}
A! )");
    ASSERT_TRUE(simulated.wait_for_clients(0, 5s));
    play("record\ngrant X\nrefuse init");
    const std::string start = R"(A? INIT "any":0 => "service_id":1
A? PERMISSION "Permissions":["X"],"QueryId":9 => "QueryId":9,"status":0,"PermRes":["0"]
A> {"req_type":"exec_task","transac_id":5}
A> both
)";
    const std::string five = R"(A< {"req_type":"exec_task","transac_id":5,"func":{"out":[1]}})";
    const std::string six = R"(A< {"transac_id":6, "req_type":"exec_task","func":{}})";
    for (const auto& [lines, result] : std::vector<std::pair<std::string, std::string>>{
             {start + six + '\n' + five + "\nA! ", "no complaint"},
             {"B+ \nB! \n" + start + six + '\n' + five + "\nA! ", "no complaint"},
             {"B+ \nB! ", "no client connected"},
             {start + R"(A< {"req_type":"exec_task","transac_id":5,"func":{"out":[2]}})",
              ":8: client 1: the client answered differently, in func.out[0]"},
             {start + five, ":9: client 1: within 800 ms the client did not send\n"},
             {start + five + '\n' + six, "did not end its connection"},
             {start + "A! ", "but it left"},
             {start + six + "\nA< other\n" + five + "\nA! ", "not recorded:\n    other"},
             {R"(A< {"req_type":"INIT","any":1})", "but with another any"},
             {"", "no client connected"}}) {
        clients.clear();
        Replay replay(kFile, {800ms}, context);
        auto ending = std::async(std::launch::async, [&] { replay.run(); });
        play(lines);
        expect_part(complaint([&] { ending.get(); }), result);
    }
    play(R"(B? INIT "any":0 => "service_id":-1)");
}

TEST(JsonLines, AreValidAndKeepPacketsToTheByte) {
    for (const auto& [packet, members] : std::vector<std::pair<std::string, std::string>>{
             {R"({"b":[1.50,-2e+9 ,true],"a":"\\\"\u00e9"})",
              R"("message":{"b":[1.50,-2e+9 ,true],"a":"\\\"\u00e9"})"},
             {"EXIT", R"("text":"EXIT")"},
             {"[007]", R"("text":"[007]")"},
             {"[1.]", R"("text":"[1.]")"},
             {"[1,]", R"("text":"[1,]")"},
             {"[NaN]", R"("text":"[NaN]")"},
             {R"({"a":1,"a":2})", R"("text":"{\"a\":1,\"a\":2}")"},
             {"[\"\t\"]", R"("text":"[\"\t\"]")"},
             {"\xef\xbb\xbf[]", "\"text\":\"\xef\xbb\xbf[]\""},
             {std::string("[\"\0\xc3\xa9\"]\n", 8), "\"text\":\"[\\\"\\u0000\xc3\xa9\\\"]\\n\""},
             {"[\"\xff\xed\xa0\x80\"]", R"("text":"[\")"
                                        "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"
                                        R"(\"]","hex":"5b22ffeda080225d")"},
         }) {
        const std::string line = json_line(Packet{{}, {}, 3, Kind::ToClient, packet});
        EXPECT_EQ(line, R"({"time":"1970-01-01T00:00:00.000000Z","monotonic":0.000000000,)"
                        R"("event":"packet","client":3,"direction":"to_client",)" +
                            members + '}');
        std::ofstream(kFile) << line << '\n';
        EXPECT_EQ(read_recording(kFile).at(0).text, packet);
    }
    const std::string nested = std::string(200, '[') + std::string(200, ']');
    EXPECT_NE(json_line(Packet{{}, {}, 1, Kind::FromClient, nested}).find("\"text\":"),
              std::string::npos);
    EXPECT_NE(json_line(Packet{{}, {}, 1, Kind::FromClient, "[1,\n2]"}).find("[1, 2]"),
              std::string::npos);
}

TEST(Services, FindWhatIsWrongWithWhatClientsSend) {
    const std::string auth =
        R"(< {"req_type":"AUTH","Service_Id":1,"Opcode":26,"Token":"t","api_def":)";
    const std::string task = R"(> {"req_type":"exec_task","opcode":"0x1a","transac_id":)";
    const std::string reply =
        R"(< {"req_type":"exec_task","opcode":"0x1a","return":0,"transac_id":)";
    // "<" is from the client, ">" to it; each "! " line is a part of one complaint of the packet
    // above.
    std::istringstream lines(R"(< {"req_type":"INIT"}
< {"req_type":"REDY","Service_Id":1,"Opcode":26}
! no service id yet
! REDY of what is not registered
> {"req_type":"INIT","service_id":1}
)" + auth + one_line_of(kLamp) +
                             R"(}
> {"req_type":"AUTH","opcode":"26","result":-1}
< {"req_type":"REDY","Service_Id":2,"Opcode":26}
! Service_Id is 2, not 1
! REDY of what is not registered
)" + auth + one_line_of(kLamp) +
                             R"(}
> {"req_type":"AUTH","opcode":"26","result":0}
< {"req_type":"REDY","Service_Id":1,"Opcode":26}
> {"req_type":"REDY","opcode":"26","result":0}
< {"req_type":"AUTH","Service_Id":1,"Opcode":27,"Token":"","api_def":{"Vexon":{"opcode":"0x1c","name":"lamp","subsystems":[],"functions":[{"name":"a\"b","args":[{"id":1,"name":"x","type":"int9"}]},{"name":"f","args":[{"id":0,"type":"uint8"}]},{"name":"f","results":[{"name":"y","type":"vector"},{"name":"y","type":"struct"}]}]}}}
! "subsystems" has to be an array, and not empty
! functions[0]: a name is without quotes
! functions[0].args[0]: there is no type "int9"
! functions[0].args[0]: "id" has to be its position, 0
! functions[1].args[0]: "name" is missing
! there is another "f"
! results[0]: "vec_type" is missing
! results[1]: "members" is missing
! results[1]: there is another "y"
! its definition is of 0x1c
! the token is empty
! 0x1a is named "lamp" as well
)" + task + R"(1,"func":{"name":"set_scene"}}
)" + reply + R"(1,"status": 0,"name":"set_scene","func":{"lit":true}}
)" + reply + R"(1,"status": 0,"name":"set_scene","func":{"lit":true}}
! no task, or a second one
)" + task + R"(2,"func":{"name":"set_scene"}}
)" + reply + R"(2,"status": 0,"name":"set_scene","func":{"lit":1,"on":2}}
! reply of set_scene: func.lit has to be boolean, not 1
! func.on is not declared
)" + task + R"(3,"func":{"name":"set_scene"}}
< {"req_type":"exec_task","opcode":"","name":"","return":"0","transac_id":3,"status": 1,"func":{"lit":true}}
! the opcode is "", not 0x1a
! the name is ""
! return is no number
! no text "error"
)" + task + R"(4,"func":{"name":"set_scene"}}
)" + reply + R"(4,"status": -1,"name":"set_scene","func":{}}
)" + task + R"(5,"func":{"name":"set_scene"}}
)" + reply + R"(5,"status": 0,"name":"set_scene","func":{"a":"b"c"}}
! no JSON, at byte 112: Missing ',' or '}'
< EXIT
< {"req_type":"", "Result":""args":0"}
< {"req_type":"start_session","session_id":5,"Result":"Success"}
! not asked for
< {"req_type":"PERMISSION","Session_Id":5,"QueryId":0,"Permissions":[""]}
! session 5, in which it takes no part
! without a "QueryId"
! empty name in "Permissions"
> {"req_type":"start_session","session_id":5,"opcodes":[{"id":"1a","subsystems":[{"id":3}]}]}
< {"req_type":"start_session","session_id":5,"Result":"Success","opcodes":[{"id":"0x0000001a"}]}
< {"req_type":"PERMISSION","Session_Id":5,"QueryId":1,"Permissions":["A"]}
> {"req_type":"end_session","session_id":5,"opcodes":[]}
< {"req_type":"end_session","session_id":5,"Result":"Success"}
< {"req_type":"end_session","session_id":5,"Result":"Success"}
! end_session that the Manager has not asked for
< {"req_type":"INFO_QUERY","Session_Id":5,"QueryId":1,"QueryInfos":["A"]}
! session 5, in which it takes no part
< {"req_type":"REGS"}
! no "req_type" "REGS")");
    Services services;
    std::vector<std::string> faults;
    std::string packet;
    for (std::string line; std::getline(lines, line);) {
        const std::string text = line.substr(2);
        if (line[0] == '!') {
            ASSERT_FALSE(faults.empty()) << text << " was not found in " << packet;
            expect_part(faults.front(), text);
            faults.erase(faults.begin());
            continue;
        }
        EXPECT_TRUE(faults.empty()) << faults.front() << " in " << packet;
        packet = text;
        faults = services.add({{}, {}, 1, line[0] == '<' ? Kind::FromClient : Kind::ToClient, text},
                              parse_json(text));
    }
    EXPECT_TRUE(faults.empty());
}

TEST(Completion, OffersWhatMayFollow) {
    Services services;
    const auto say = [&](Kind kind, const std::string& text) {
        services.add({{}, {}, 1, kind, text}, parse_json(text));
    };
    for (const auto& [opcode, definition] : std::map<std::string, std::string>{
             {"26", kLamp}, {"43", R"({"Vexon":{"opcode":"2b","subsystems":[{"id":1}]}})"}}) {
        say(Kind::FromClient,
            R"({"req_type":"AUTH","Opcode":)" + opcode + R"(,"api_def":)" + definition + "}");
        say(Kind::ToClient, R"({"req_type":"AUTH","opcode":")" + opcode + R"(","result":0})");
    }
    for (const auto& [line, words] : std::vector<std::pair<std::string, std::string>>{
             {"re", "reading ready record refuse replay restart "},
             {"refuse ", "auth info init permission ready "},
             {"permission-change \"X\" g", "granted "},
             {"call --c", "--count "},
             {"call ", "0x2b. lamp. "},
             {"call lamp.", "lamp.off lamp.set_scene "},
             {"call --session 5 lamp.set_scene scene=1 s", "seconds= "},
             {"describe lamp.o", "lamp.off "},
             {"restart --", "--abrupt "},
             {"reading o", "off on "},
             {"replay --timeout 5 /proc/self/fdi", "/proc/self/fdinfo/ "},
             {"start ", ""},
             {"bogus x", ""},
             {"--bogus ", ""},
             {"info " + std::string(200'000, 'x') + ' ', ""}}) {
        std::string offered;
        for (const std::string& word : completions(line, services)) offered += word + ' ';
        EXPECT_EQ(offered, words) << line;
    }
}

TEST(Latencies, AreExactTo2PercentInLittleMemory) {
    Latencies latencies;
    for (int i = 1; i <= 100'000; ++i) latencies.add(std::chrono::microseconds(i));
    EXPECT_NEAR(latencies.percentile(50).count(), 50, 1);
    EXPECT_NEAR(latencies.percentile(99).count(), 99, 2);
    EXPECT_EQ(latencies.percentile(100), 100ms);
}

/// Returns what the shell command prints; $M is the program.
std::string run_shell(const std::string& command) {
    std::FILE* const shell =
        popen(("exec 2>&1; M=" VEXON_MANAGER_PROGRAM "\n" + command).c_str(), "r");
    std::string output;
    for (int c = fgetc(shell); c != EOF; c = fgetc(shell)) output += static_cast<char>(c);
    pclose(shell);
    return output;
}

/// Returns what the program prints, and its exit status as the last line.
std::string run_program(const std::string& script) {
    return run_shell("$M --script /dev/stdin <<'END'\n" + script + "\nEND\necho $?");
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
A< {"req_type":"exec_task","transac_id":3,"status": -1}
A< {"req_type":"exec_task","transac_id":2,"status": 0}
A> closed
B? INIT "any":0 => "service_id":1
B< again)");
    const std::string output = program.get();
    for (const char* part :
         {"2 of 2 tasks answered", "\nadd       0x1a        3         3       1            0 ",
          " client 2 <- again\n", "\n0\n"})
        EXPECT_NE(output.find(part), std::string::npos) << output;
}

TEST(Program, StopsAtTheFirstFailure) {
    expect_part(run_program("\nexpect a 20\nquit"), "stdin:2: expect a 20\n");
    expect_part(run_program("send x\nquit"), "no client is connected\n1\n");
    expect_part(run_program("\nstrat 5"), "help lists the commands\n2\n");
}

TEST(Program, ChecksDefinitions) {
    const std::string file = "F=/dev/socket/d; printf '%b' '";
    for (
        const auto& [text, output] : std::vector<std::pair<std::string, std::string>>{
            {R"(\x02{"Vexon":{"opcode":"1a","name":"lamp","subsystems":[{"id":1}],"functions":[{"name":"off","args":[{"id":0,"name":"ms","type":"uint32"}]}]}})",
             "lamp.off(ms: uint32)\n0\n"},
            {R"({"Vexon":{"opcode":"1a","name":"lamp",\n "subsystems":[{"id":"1"}]}})",
             "/dev/socket/d:2:16: Vexon.subsystems: an \"id\" has to be a number of 32 bits\n1\n"},
            {R"({"Vexon":\n {"opcode":"1a" "name":1}})", "/dev/socket/d:2:17: no JSON: Missing"}}) {
        expect_part(run_shell(file + text + "' >$F; $M --check $F; echo $?"), output);
    }
    expect_part(run_shell("$M --check /nowhere; echo $?"), "cannot read /nowhere\n2\n");
}

TEST(Program, StartsAServiceAndEndsWithIt) {
    // A standard input that does not end.
    constexpr char kStart[] =
        "mkfifo /dev/socket/input; exec 3<>/dev/socket/input; rm /dev/socket/input; timeout 60 $M "
        "--quiet <&3 ";
    for (const auto& [command, output] : std::vector<std::pair<std::string, std::string>>{
             {std::string(kStart) + "-- sh -c 'echo one; printf two; exit 5'; echo $?",
              "one\ntwo\n5\n"},
             {std::string(kStart) + "--json -- echo one; echo $?",
              R"("event":"output","text":"one")"},
             {"echo sleep 300 | $M -- sh -c 'trap \"echo ended; exit\" TERM; while :; do sleep "
              "0.1; "
              "done'; echo $?",
              "ended\n0\n"}}) {
        expect_part(run_shell(command), output);
    }
}

bool is_emulated() {
    return std::string(VEXON_PRIVATE_DEV).find("/emulated/") != std::string::npos;
}

TEST(Program, SaysThatAServiceCannotBeStarted) {
    if (is_emulated()) GTEST_SKIP() << "an emulator does not tell posix_spawn() that it failed";
    expect_part(run_shell("$M -- /nowhere; echo $?"),
                "cannot start /nowhere: No such file or directory\n3\n");
}

TEST(Program, HasAPrivateDevThatOthersMayJoin) {
    if (is_emulated()) GTEST_SKIP() << "a program cannot start others of both machines";
    const std::string start = "P=" VEXON_PRIVATE_DEV
                              "; mkfifo /dev/socket/input; "
                              "exec 3<>/dev/socket/input; rm /dev/socket/input; ";
    for (const auto& [command, output] : std::vector<std::pair<std::string, std::string>>{
             // The Manager makes one for its service if need be.
             {"$P sh -c \"rm -r /dev/socket; $M --quiet -- sh -c 'test -S /dev/socket/vexa && echo "
              "at "
              "the real path'\" <&3; echo $?",
              "at the real path\n0\n"},
             {"$P sh -c 'echo $$; exec cat' <&3 | { read pid; cd /usr; "
              "$P --join $pid sh -c 'ls /dev/socket; pwd'; kill $pid; }",
              "vexon_one\n/usr\n"}}) {
        expect_part(run_shell(start + command), output);
    }
}

TEST_F(Simulated, HasAProgramThatShowsOnlyWhatFitsAndFailsForFaultsIfItIsStrict) {
    simulated.stop();  // the program takes its place
    for (const auto& [options, shown] :
         std::vector<std::pair<std::string, bool>>{{"--watch type=INIT", true},
                                                   {"--watch 'client=2 type=INIT'", false},
                                                   {"--quiet --watch client=1", true}}) {
        clients.clear();
        auto program = std::async(std::launch::async, run_shell,
                                  "$M " + options + " & echo $! >/dev/socket/pid; wait");
        // The last answer comes when all before it has been shown.
        play(R"(A? INIT "any":0 => "service_id":1
A? PERMISSION "Permissions":[],"QueryId":7 => "QueryId":7,"status":0,"PermRes":[]
A? INIT "any":0 => "service_id":2)");
        run_shell("kill $(cat /dev/socket/pid)");
        const std::string output = program.get();
        const bool shows_queries = options.find("type=") == std::string::npos;
        EXPECT_EQ(output.find("<- {\"req_type\":\"INIT\"") != std::string::npos, shown) << output;
        EXPECT_EQ(output.find("PERMISSION") != std::string::npos, shows_queries) << output;
    }
    for (const auto& [options, status] : std::vector<std::pair<std::string, std::string>>{
             {"", "\n0\n"}, {"--strict", "services made 1 faults, see above\n1\n"}}) {
        clients.clear();
        auto program = std::async(std::launch::async, run_shell,
                                  "echo 'expect bogus 9000' | $M --quiet " + options + "; echo $?");
        play(R"(A< {"req_type":"bogus"})");
        const std::string output = '\n' + program.get();
        expect_part(output, "warning: client 1: there is no \"req_type\" \"bogus\"\n");
        expect_part(output, status);
    }
}

TEST(Program, EndsCleanlyOnSignalsAndWhenNobodyReads) {
    // What sends the signal learns the number of the process, and that its commands have begun.
    const auto signalled = [](const std::string& input, const std::string& signal) {
        return "{ " + input + " | sh -c 'echo $$; exec '$M; echo $? >&2; } | " +
               "{ read pid; read line; sleep 0.2; kill -" + signal + " $pid; cat >/dev/null; }";
    };
    for (const auto& [command, expected] : std::vector<std::pair<std::string, std::string>>{
             {signalled("printf 'help quit\\nsleep 60000\\n'", "INT"), "signal 2\n130\n"},
             {signalled("printf 'help quit\\nexpect a 60000\\n'", "TERM"), "signal 15\n143\n"},
             {signalled("{ echo help quit; sleep 1; }", "INT"), "\n0\n"},
             {"printf 'help\\nsleep 300\\nhelp\\nsleep 60000\\n' | { $M; echo $? >&2; } | head -n1",
              "\n141\n"},
             // The shell in between would answer for the signal by its own status.
             {"shown=$(mktemp); { for i in $(seq 300); do grep -q 'manager> ' $shown && break; "
              "sleep 0.1; done; printf '\\003'; sleep 1; } | SHELL=/bin/sh TERM=xterm "
              "script -qfec \"exec $M\" $shown; echo $?; rm $shown",
              "manager> \r\n0\n"},
             // Ctrl-C cancels a line and a command; the history is kept for the next time.
             {"export XDG_STATE_HOME=$(mktemp -d); shown=$(mktemp); wait_for() { for i in $(seq "
              "300); "
              "do grep -q \"$1\" $shown && return; sleep 0.1; done; }; "
              "{ wait_for 'manager> '; printf 'bogus'; wait_for bogus; printf '\\003'; wait_for "
              "'\\^C'; "
              "printf 'expect x 60000\\n'; sleep 0.5; printf '\\003'; wait_for 'signal 2'; "
              "printf 'help sleep\\n'; wait_for Wait; printf '\\004'; sleep 0.5; } | "
              "SHELL=/bin/sh TERM=xterm script -qfec \"exec $M\" $shown >/dev/null; echo $?; "
              "cat $XDG_STATE_HOME/vexon-manager/history; rm -r $shown $XDG_STATE_HOME",
              "\n0\n_HiStOrY_V2_\nexpect\\040x\\04060000\\012\nhelp\\040sleep\\012\n"}}) {
        const std::string output = '\n' + run_shell(command);
        expect_part(output, expected);
        EXPECT_NE(access(kDefaultPath, F_OK), 0) << "the socket file was left by " << command;
    }
}

}  // namespace
