// The least that serves the same packets: jsoncpp parses them, a decoder without any check fills
// two maps of shared values, each task has a thread, and the reply is concatenated and sent under a
// lock.
//
// Usage: bench-service-floor PATH echo|parse|thread|whole
// All but the last stop after that step and answer at once.

#include <json/json.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "services/until_told.h"
#include "task.h"

namespace {

using Holder = std::shared_ptr<ValuesInterface>;

constexpr std::size_t kBufferSize = 524'288;
constexpr char kTransactionKey[] = "\"transac_id\":";

enum class Step { kEcho, kParse, kThread, kWhole };

struct Task {
    std::uint32_t session;
    std::uint32_t subsystem;
    std::uint32_t transaction;
    std::string function;
    vexon_type_map_t typed;
    vexon_value_map_t values;
};

struct Maps {
    vexon_type_map_t typed;
    vexon_value_map_t values;
};

void decode(const Json::Value& arguments, vexon_type_map_t* typed, vexon_value_map_t* values);

template <class T>
Holder hold(T value) {
    return std::make_shared<ParamValues<T>>(std::move(value));
}

Holder decode_vector(const Json::Value& array) {
    std::vector<int> elements;
    elements.reserve(array.size());
    for (const Json::Value& element : array) elements.push_back(element.asInt());
    return hold(std::move(elements));
}

// The ids ascend, so that each value belongs at the end.
void add(int id, vexon_data_type_t type, Holder value, vexon_type_map_t* typed,
         vexon_value_map_t* values) {
    values->emplace_hint(values->end(), id, value);
    typed->emplace_hint(typed->end(), id, std::make_pair(type, std::move(value)));
}

void decode_one(const Json::Value& argument, vexon_type_map_t* typed, vexon_value_map_t* values) {
    const int id = argument["id"].asInt();
    const char* const type = argument["type"].asCString();
    if (std::strcmp(type, "struct") == 0) {
        Maps nested;
        decode(argument["members"], &nested.typed, &nested.values);
        values->emplace_hint(values->end(), id, hold(std::move(nested.values)));
        typed->emplace_hint(typed->end(), id,
                            std::make_pair(VEXON_TYPE_STRUCT, hold(std::move(nested.typed))));
        return;
    }
    const Json::Value& value = argument["value"];
    if (std::strcmp(type, "int32") == 0) {
        add(id, VEXON_TYPE_INT32, hold(value.asInt()), typed, values);
    } else if (std::strcmp(type, "string") == 0) {
        add(id, VEXON_TYPE_STRING, hold(value.asString()), typed, values);
    } else if (std::strcmp(type, "double") == 0) {
        add(id, VEXON_TYPE_DOUBLE, hold(value.asDouble()), typed, values);
    } else if (std::strcmp(type, "vector") == 0) {
        add(id, VEXON_TYPE_VECTOR_INT32, decode_vector(value), typed, values);
    }
}

void decode(const Json::Value& arguments, vexon_type_map_t* typed, vexon_value_map_t* values) {
    for (const Json::Value& argument : arguments) decode_one(argument, typed, values);
}

class Floor {
  public:
    Floor(int fd, Step last) : fd_(fd), last_(last) {}

    void serve() {
        std::vector<char> buffer(kBufferSize);
        while (true) {
            const ssize_t size = ::recvfrom(fd_, buffer.data(), buffer.size(), 0, nullptr, nullptr);
            if (size <= 0) return;
            handle(buffer.data(), static_cast<std::size_t>(size));
        }
    }

  private:
    void handle(const char* text, std::size_t size) {
        if (last_ == Step::kEcho) return acknowledge(find_transaction(text, size));
        Json::Value message;
        reader_->parse(text, text + size, &message, nullptr);
        const std::uint32_t transaction = message["transac_id"].asUInt();
        if (last_ == Step::kParse) return acknowledge(transaction);
        if (last_ == Step::kThread) {
            std::thread([this, transaction] { acknowledge(transaction); }).detach();
            return;
        }
        Task task{message["session_id"].asUInt(),
                  message["subsys_id"].asUInt(),
                  transaction,
                  message["func"]["name"].asString(),
                  {},
                  {}};
        decode(message["func"]["args"], &task.typed, &task.values);
        std::thread([this, task = std::move(task)]() mutable { run(&task); }).detach();
    }

    // As in the library, the arguments are released before the reply is made.
    void run(Task* task) {
        _vexon_call_info_t call{};
        bench::answer_checksum(&call, {std::move(task->function), 0, &task->values, &task->typed});
        task->values.clear();
        task->typed.clear();
        send("{\"opcode\":\"" + call.opcode + "\",\"name\":\"" + call.name + "\",\"subsys_id\":\"" +
             std::to_string(task->subsystem) +
             "\",\"req_type\":\"exec_task\",\"return\":" + std::to_string(call.return_value) +
             ",\"func\":{" + call.func + "},\"transac_id\":" + std::to_string(task->transaction) +
             ",\"status\": " + std::to_string(call.status) +
             ",\"session_id\":" + std::to_string(task->session) + "}");
    }

    static std::uint32_t find_transaction(const char* text, std::size_t size) {
        const std::size_t length = sizeof kTransactionKey - 1;
        const void* const key = ::memmem(text, size, kTransactionKey, length);
        return static_cast<std::uint32_t>(
            std::strtoul(static_cast<const char*>(key) + length, nullptr, 10));
    }

    void acknowledge(std::uint32_t transaction) {
        send("{\"func\":{},\"transac_id\":" + std::to_string(transaction) + "}");
    }

    void send(const std::string& text) {
        const std::lock_guard<std::mutex> lock(send_mutex_);
        ::sendto(fd_, text.data(), text.size(), 0, nullptr, 0);
    }

    const int fd_;
    const Step last_;
    const std::unique_ptr<Json::CharReader> reader_{Json::CharReaderBuilder().newCharReader()};
    std::mutex send_mutex_;
};

Step step_of(const std::string& name) {
    if (name == "echo") return Step::kEcho;
    if (name == "parse") return Step::kParse;
    return name == "thread" ? Step::kThread : Step::kWhole;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int fd = bench::connect_to(argv[1], SOCK_SEQPACKET);
    // Not destroyed: tasks may run when main() returns.
    Floor* const floor = new Floor(fd, step_of(argv[2]));
    std::thread([floor] { floor->serve(); }).detach();
    bench::wait_until_told();
    return 0;
}
