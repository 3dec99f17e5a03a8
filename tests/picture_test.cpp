// SPDX-License-Identifier: Apache-2.0
// The pictures of conversations, made of recordings as the program and others write them.

#include <gtest/gtest.h>
#include <json/writer.h>

#include <fstream>
#include <map>
#include <sstream>

#include "manager/base/error.h"
#include "manager/base/json.h"
#include "manager/recording/pictures.h"

namespace {

using namespace manager;

// Each test has a /dev of its own.
constexpr char kRecording[] = "/dev/socket/recording";
constexpr char kTrace[] = "/dev/socket/trace";
constexpr char kDiagram[] = "/dev/socket/diagram";

std::string read_file(const char* name) {
    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
}

/// The lines of a recording: "MS CLIENT + " connects, "- " leaves, "< TEXT" is a packet of the
/// client and "> TEXT" one to it. Anything else is a line as it is.
void record(const std::string& text) {
    static const std::map<std::string, std::string> kEvents{
        {"+", R"("connected")"},
        {"-", R"("disconnected","by":"client")"},
        {"<", R"("packet","direction":"from_client")"},
        {">", R"("packet","direction":"to_client")"}};
    std::istringstream lines(text);
    std::ofstream file(kRecording);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        double ms = 0;
        int client = 0;
        std::string event;
        if (!(words >> ms >> client >> event)) {
            file << line << '\n';
            continue;
        }
        std::string packet;
        std::getline(words >> std::ws, packet);
        file << R"({"monotonic":)" << 5 + ms / 1000 << R"(,"event":)" << kEvents.at(event)
             << R"(,"client":)" << client;
        if (!packet.empty()) file << R"(,"text":)" << json_string(packet);
        file << "}\n";
    }
}

/// Returns what was found wrong with the recording.
std::string draw() {
    std::string complaints;
    Pictures(kTrace, kDiagram).draw(kRecording, [&](const std::string& message) {
        complaints += message + '\n';
    });
    return complaints;
}

struct Slice {
    double begin;
    double end;
    std::string name;
    std::string type;
};

/// Checks what holds for every trace, and returns its slices, instants and flows, a line each.
std::string check_trace() {
    const std::string text = read_file(kTrace);
    EXPECT_TRUE(is_strict_json(text)) << text;
    const Json::Value events = parse_json(text).value_or(Json::Value());
    std::map<int, std::string> processes, threads;
    std::map<int, std::vector<Slice>> open;  // of each thread, the innermost last
    std::map<int, double> flows;
    std::ostringstream lines;
    double now = 0;
    for (const Json::Value& event : events) {
        const std::string phase = event["ph"].asString();
        const double time = event["ts"].asDouble();
        const int thread = event["tid"].asInt();
        const std::string name = event["name"].asString();
        EXPECT_GE(time, now) << event;
        now = time;
        if (phase == "M") {
            auto& names = name == "process_name" ? processes : threads;
            const int key = name == "process_name" ? event["pid"].asInt() : thread;
            EXPECT_TRUE(names.emplace(key, event["args"]["name"].asString()).second) << event;
            continue;
        }
        EXPECT_EQ(threads.count(thread) + processes.count(event["pid"].asInt()), 2U) << event;
        auto& slices = open[thread];
        const double end = time + event["dur"].asDouble();
        const Json::Value& args = event["args"];
        lines << processes[event["pid"].asInt()] << '/' << threads[thread] << ' ' << phase << ' '
              << time / 1000 << ' ' << name;
        if (phase == "X") {
            const std::string type = event["cat"].asString();
            while (!slices.empty() && slices.back().end <= time && slices.back().begin < time) {
                slices.pop_back();
            }
            EXPECT_GE(end, time);
            if (!slices.empty()) {
                EXPECT_LE(end, slices.back().end) << event;
                EXPECT_EQ(slices.back().type, "session") << event;
            }
            EXPECT_TRUE(type != "exec_task" || !slices.empty()) << event;
            slices.push_back({time, end, name, type});
            lines << " to " << end / 1000 << (args.isMember("status") ? " status " : "")
                  << args["status"].asString();
            EXPECT_TRUE(type == "session" || args.isMember("request")) << event;
        } else if (phase == "s") {
            flows[event["id"].asInt()] = time;
        } else if (phase == "f") {
            EXPECT_EQ(flows.count(event["id"].asInt()), 1U) << event;
            flows.erase(event["id"].asInt());
        }
        if (phase == "s" || phase == "f") {
            EXPECT_TRUE(!slices.empty() && slices.back().begin == time) << event;
        }
        lines << '\n';
    }
    EXPECT_TRUE(flows.empty());
    return lines.str();
}

std::string call(int session, int transaction, const std::string& name) {
    return R"({"req_type":"exec_task","session_id":)" + std::to_string(session) +
           R"(,"transac_id":)" + std::to_string(transaction) + R"(,"func":{"name":")" + name +
           R"(","args":[{"value":21.50}]}})";
}

std::string reply(int session, int transaction, int status = 0) {
    return R"({"name":"own","req_type":"exec_task","transac_id":)" + std::to_string(transaction) +
           R"(,"status": )" + std::to_string(status) + R"(,"session_id":)" +
           std::to_string(session) + '}';
}

const std::string kStart = R"({"req_type":"start_session","session_id":5})";
const std::string kStarted = R"({"req_type":"start_session","session_id":5,"Result":"Success"})";
const std::string kEnd = R"({"req_type":"end_session","session_id":5,"opcodes":[]})";
const std::string kEnded = R"({"req_type":"end_session","session_id":5,"Result":"Success"})";

TEST(Trace, ShowsTasksInTheirSessionsAndRequestsAsFlows) {
    record("0 1 +\n1 1 > " + kStart + "\n2 1 < " + kStarted + "\n3 1 > " + call(5, 1, "slow") +
           "\n4 1 > " + call(5, 2, "fast") + "\n5 1 < " + reply(5, 2, -1) + "\n6 1 > " +
           call(5, 3, "next") + "\n7 1 < " +
           R"({"req_type":"PERMISSION","Session_Id":5,"Permissions":["A"],"QueryId":1})" +
           "\n8 1 > " + R"({"req_type":"PERMISSION","QueryId":1,"status":0,"PermRes":["1"]})" +
           "\n9 1 < " + reply(5, 1) + "\n10 1 < " + reply(5, 1) + "\n11 1 > " + kEnd + "\n12 1 < " +
           kEnded + "\n13 1 > " + R"({"req_type":"state_change","state":"s","value":"on"})" +
           "\n14 1 < EXIT\n15 1 -\n");
    EXPECT_EQ(draw(), "");
    EXPECT_EQ(check_trace(), R"(client 1/notices i 0 connected
client 1/sessions X 1 session 5 to 12
client 1/sessions X 1 start_session 5 to 2
client 1/sessions (2) X 1 session 5 to 12
client 1/sessions X 3 slow to 9 status 0
client 1/sessions (2) X 4 fast to 5 status -1
client 1/sessions (2) X 6 next to 12
client 1/requests X 7 PERMISSION ["A"] to 8
client 1/requests s 7 PERMISSION
Manager/requests X 7 PERMISSION ["A"] to 8
Manager/requests f 7 PERMISSION
client 1/notices i 10 exec_task own: status 0
client 1/sessions X 11 end_session 5 to 12
client 1/notices i 13 state_change s: on
client 1/notices i 14 EXIT
client 1/notices i 15 disconnected
)");
    EXPECT_NE(read_file(kTrace).find(R"("arguments":[{"value":21.50}])"), std::string::npos);
}

TEST(Trace, PairsAnswersWithTheirOwnRequests) {
    const std::string plain = R"({"req_type":"", "Result":""args":0"})";
    for (const auto& [recording, slices] : std::vector<std::pair<std::string, std::string>>{
             {"0 1 > " + call(5, 1, "a") + "\n1 2 > " + call(5, 1, "b") + "\n2 1 > " +
                  call(6, 1, "c") + "\n3 2 < " + reply(5, 1) + "\n4 1 < " + reply(6, 1) +
                  "\n5 1 < " + reply(5, 1),
              "0 session 5 to 5\n0 a to 5 status 0\n"
              "1 session 5 to 5\n1 b to 3 status 0\n"
              "2 session 6 to 5\n2 c to 4 status 0\n"},
             {"0 1 > " + call(5, -1, "a") + "\n1 1 > " + call(5, -1, "b") + "\n2 1 < " + plain +
                  "\n3 1 < " + plain,
              "0 session 5 to 3\n0 a to 2 status \n"
              "0 session 5 to 3\n1 b to 3 status \n"},
             // An answer is none to a request of the connection before.
             {"0 1 > " + call(5, 1, "a") + "\n1 1 -\n2 1 +\n3 1 < " + reply(5, 1),
              "0 session 5 to 1\n0 a to 1\n"},
             {"0 1 > " + kStart + "\n0 1 < " + kStarted + "\n1 1 > " + call(5, 1, "late") +
                  "\n2 1 > " + kEnd + "\n3 1 < " + kEnded + "\n4 1 < " + reply(5, 1),
              "0 session 5 to 4\n0 start_session 5 to 0\n0 session 5 to 4\n1 late to 4 status 0\n"
              "2 end_session 5 to 3\n"},
             // Client and Manager, each with the request that is not answered.
             {R"(0 1 < {"req_type":"INIT"}
2 1 -
3 2 < {"req_type":"INIT"}
4 2 < EXIT)",
              "0 INIT to 2\n0 INIT to 2\n3 INIT to 4\n3 INIT to 4\n"},
             // A refused end is none, and no slice ends before it begins.
             {"0 1 > " + kStart + "\n1 1 < " + kStarted + "\n2 1 > " + kEnd + "\n3 1 < " +
                  R"({"req_type":"end_session","session_id":5,"Result":"Failed"})" + "\n4 1 > " +
                  call(5, 1, "a") + "\n3.5 1 < " + reply(5, 1) + "\n6 1 -",
              "0 session 5 to 6\n0 start_session 5 to 1\n2 end_session 5 to 3\n"
              "4 a to 4 status 0\n"},
             {"0 1 > " + kStart + "\n1 1 < " +
                  R"({"req_type":"start_session","session_id":5,"Result":"Failed"})" + "\n2 1 > " +
                  kStart + "\n3 1 < " + kStarted,
              "0 session 5 to 1\n0 start_session 5 to 1\n2 session 5 to 3\n"
              "2 start_session 5 to 3\n"},
         }) {
        record(recording);
        EXPECT_EQ(draw(), "") << recording;
        std::istringstream lines(check_trace());
        std::string found;
        for (std::string line; std::getline(lines, line);) {
            const std::size_t slice = line.find(" X ");
            if (slice != std::string::npos) found += line.substr(slice + 3) + '\n';
        }
        EXPECT_EQ(found, slices) << recording;
    }
}

TEST(Pictures, StandWhateverPeersSay) {
    const std::string deep = std::string(90, '[') + std::string(90, ']');
    std::string recording = R"(0 1 < {"req_type":["exec_task"]}
1 1 > {"req_type":"exec_task"}
1 1 < {"req_type":"exec_task","transac_id":1e400,"session_id":{"a":"b"}}
1 1 > {"req_type":"exec_task","transac_id":"x","session_id":null,"func":[],"opcodes":7}
0.5 -3 < {"req_type":"INFO_QUERY","QueryId":[1],"QueryInfos":")"
                            "\x01\xff"
                            R"("}
2 2147483647 > {"req_type":"start_session","opcodes":[{"id":{}}]}
2 1 > [1,]
2 1 < </script><script>alert(1)</script><!--
{"monotonic":1e300,"event":"packet","client":1,"direction":"to_client","text":""}
{"monotonic":"x","event":"packet","client":1,"direction":"to_client","hex":"00ff22"}
3 1 < )" + deep + "\n";
    record(recording + "{\"monot\n\n4 1 -\n");
    const std::string complaints = draw();
    EXPECT_EQ(complaints, std::string(kRecording) + ":12: this is no line of a recording\n" +
                              kRecording + ":13: this is no line of a recording\n");
    const std::string lines = check_trace();
    EXPECT_NE(lines.find("client 1/notices i 4 disconnected"), std::string::npos) << lines;
    const std::string page = read_file(kDiagram);
    EXPECT_EQ(page.find("<script>"), std::string::npos);
    EXPECT_EQ(page.find("<!--"), std::string::npos);
    EXPECT_NE(page.find(R"(\u003c/script>\u003cscript>alert(1))"), std::string::npos) << page;
}

TEST(Pictures, AreRefusedOfWhatIsNoRecordingAndToWhatCannotBeWritten) {
    record("# a script\nquit\n");
    EXPECT_THROW(draw(), ManagerError);
    EXPECT_THROW(Pictures("/nowhere/trace", ""), ManagerError);
    EXPECT_THROW(Pictures("", "").draw("/nowhere/recording", [](const auto&) {}), ManagerError);
    record("0 1 < EXIT\n");
    EXPECT_THROW(Pictures("/dev/full", "").draw(kRecording, [](const auto&) {}), ManagerError);
    record("");
    EXPECT_EQ(draw(), "");
    EXPECT_EQ(check_trace(), "");
}

}  // namespace
