// SPDX-License-Identifier: Apache-2.0
// The least that serves the same packets: jsoncpp parses them, a decoder without any check fills
// two maps of shared values, each task has a thread, and the reply is concatenated and sent under a
// lock.
//
// Usage: bench-service-floor NAME, with a socket of packets as standard input
// NAME is that of a contender, which may say that workers stay; the steps stop early and answer at
// once.

#include <json/json.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "task.h"

namespace {

using Holder = std::shared_ptr<ValuesInterface>;

constexpr std::size_t kBufferSize = 524'288;
constexpr std::string_view kTransactionKey = "\"transac_id\":";

enum class Step { kEcho, kParse, kThread, kWhole };

struct Maps {
    vexon_type_map_t typed;
    vexon_value_map_t values;
};

struct Task {
    std::uint32_t session;
    std::uint32_t subsystem;
    std::uint32_t transaction;
    std::string function;
    Maps arguments;
};

template <class T>
Holder hold(T value) {
    return std::make_shared<ParamValues<T>>(std::move(value));
}

Holder hold_vector(const Json::Value& array) {
    std::vector<int> elements;
    elements.reserve(array.size());
    for (const Json::Value& element : array) elements.push_back(element.asInt());
    return hold(std::move(elements));
}

// Returns the type and the holder of a value that is no struct.
std::pair<vexon_data_type_t, Holder> decode_plain(const char* type, const Json::Value& value) {
    if (std::strcmp(type, "int32") == 0) return {VEXON_TYPE_INT32, hold(value.asInt())};
    if (std::strcmp(type, "string") == 0) return {VEXON_TYPE_STRING, hold(value.asString())};
    if (std::strcmp(type, "double") == 0) return {VEXON_TYPE_DOUBLE, hold(value.asDouble())};
    return {VEXON_TYPE_VECTOR_INT32, hold_vector(value)};
}

Maps decode(const Json::Value& arguments) {
    Maps maps;
    for (const Json::Value& argument : arguments) {
        const int id = argument["id"].asInt();
        const char* const type = argument["type"].asCString();
        std::pair<vexon_data_type_t, Holder> typed;
        Holder value;
        if (std::strcmp(type, "struct") == 0) {
            Maps nested = decode(argument["members"]);
            typed = {VEXON_TYPE_STRUCT, hold(std::move(nested.typed))};
            value = hold(std::move(nested.values));
        } else {
            typed = decode_plain(type, argument["value"]);
            value = typed.second;
        }
        // The ids ascend, so that each value belongs at the end.
        maps.values.emplace_hint(maps.values.end(), id, std::move(value));
        maps.typed.emplace_hint(maps.typed.end(), id, std::move(typed));
    }
    return maps;
}

class Floor {
  public:
    explicit Floor(const std::string& name)
        : last_(step_of(name)), workers_stay_(name.find("stay") != std::string::npos) {}

    void serve() {
        std::vector<char> buffer(kBufferSize);
        ssize_t size = 0;
        while ((size = ::recvfrom(0, buffer.data(), buffer.size(), 0, nullptr, nullptr)) > 0) {
            handle(buffer.data(), static_cast<std::size_t>(size));
        }
    }

  private:
    static Step step_of(const std::string& name) {
        if (name == "echo") return Step::kEcho;
        if (name == "+ parse") return Step::kParse;
        return name == "+ thread" ? Step::kThread : Step::kWhole;
    }

    void handle(const char* text, std::size_t size) {
        if (last_ == Step::kEcho) return acknowledge(find_transaction({text, size}));
        Json::Value message;
        reader_->parse(text, text + size, &message, nullptr);
        const std::uint32_t transaction = message["transac_id"].asUInt();
        if (last_ == Step::kParse) return acknowledge(transaction);
        if (last_ == Step::kThread) {
            return std::thread([this, transaction] { acknowledge(transaction); }).detach();
        }
        Task task{message["session_id"].asUInt(), message["subsys_id"].asUInt(), transaction,
                  message["func"]["name"].asString(), decode(message["func"]["args"])};
        if (hand_over(&task)) return;
        std::thread([this, task = std::move(task)]() mutable { work(&task); }).detach();
    }

    bool hand_over(Task* task) {
        std::unique_lock<std::mutex> lock(workers_mutex_);
        if (idle_ == 0) return false;
        --idle_;
        tasks_.push_back(std::move(*task));
        lock.unlock();
        given_.notify_one();
        return true;
    }

    void work(Task* task) {
        for (run(task); workers_stay_; run(task)) {
            std::unique_lock<std::mutex> lock(workers_mutex_);
            ++idle_;
            given_.wait(lock, [this] { return !tasks_.empty(); });
            *task = std::move(tasks_.back());
            tasks_.pop_back();
        }
    }

    // As in the library, the arguments are released before the reply is made.
    void run(Task* task) {
        _vexon_call_info_t call{};
        Maps& arguments = task->arguments;
        bench::answer_checksum(&call,
                               {std::move(task->function), 0, &arguments.values, &arguments.typed});
        arguments = {};
        send("{\"opcode\":\"" + call.opcode + "\",\"name\":\"" + call.name + "\",\"subsys_id\":\"" +
             std::to_string(task->subsystem) +
             "\",\"req_type\":\"exec_task\",\"return\":" + std::to_string(call.return_value) +
             ",\"func\":{" + call.func + "},\"transac_id\":" + std::to_string(task->transaction) +
             ",\"status\": " + std::to_string(call.status) +
             ",\"session_id\":" + std::to_string(task->session) + "}");
    }

    static std::uint32_t find_transaction(std::string_view text) {
        const std::size_t begin = text.find(kTransactionKey) + kTransactionKey.size();
        return static_cast<std::uint32_t>(std::strtoul(text.data() + begin, nullptr, 10));
    }

    void acknowledge(std::uint32_t transaction) {
        send("{\"func\":{},\"transac_id\":" + std::to_string(transaction) + "}");
    }

    void send(const std::string& text) {
        const std::lock_guard<std::mutex> lock(send_mutex_);
        ::sendto(0, text.data(), text.size(), 0, nullptr, 0);
    }

    const Step last_;
    const std::unique_ptr<Json::CharReader> reader_{Json::CharReaderBuilder().newCharReader()};
    std::mutex send_mutex_;
    const bool workers_stay_;
    std::mutex workers_mutex_;
    std::condition_variable given_;
    unsigned idle_ = 0;
    std::vector<Task> tasks_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    // Not destroyed: tasks may run when main() returns.
    Floor* const floor = new Floor(argv[1]);
    std::thread([floor] { floor->serve(); }).join();
    return 0;
}
