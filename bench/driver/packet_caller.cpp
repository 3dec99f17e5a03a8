#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "driver/caller.h"

namespace bench {
namespace {

constexpr std::string_view kTransactionKey = "\"transac_id\":";
constexpr std::size_t kTransactionDigits = 9;

// The Manager.
class PacketCaller final : public Caller {
  public:
    PacketCaller(int fd, Introduction introduction, Answer answer)
        : fd_(fd), checks_(answer == Answer::kChecksum) {
        if (introduction == Introduction::kFull) introduce();
    }

    ~PacketCaller() override { ::close(fd_); }

    void use(const Message& message) override {
        text_ = exec_task_text(message, kFirstTransaction);
        digits_ = text_.find(kTransactionKey) + kTransactionKey.size();
        answer_ = "\"out\":" + std::to_string(checksum(message.arguments)) + "}";
    }

    void start(unsigned slot) override {
        const std::string id = std::to_string(kFirstTransaction + slot);
        text_.replace(digits_, kTransactionDigits, id);
        send(text_);
    }

    unsigned finish() override {
        const std::string_view reply = receive();
        const std::size_t key = reply.rfind(kTransactionKey);
        if (key == std::string_view::npos ||
            (checks_ && reply.find(answer_) == std::string_view::npos)) {
            throw CallFailed("unexpected reply: " + std::string(reply));
        }
        const auto id = std::strtoul(reply.data() + key + kTransactionKey.size(), nullptr, 10);
        return static_cast<unsigned>(id - kFirstTransaction);
    }

  private:
    // Registers the service, then opens a session for it.
    void introduce() {
        answer("\"INIT\"", R"({"req_type":"INIT","service_id":1})");
        answer("\"AUTH\"", R"({"req_type":"AUTH","opcode":"26","result":0})");
        answer("\"REDY\"", R"({"req_type":"REDY","opcode":"26","result":0})");
        const std::string session = R"(,"session_id":5,"transac_id":1,)"
                                    R"("opcodes":[{"id":"1a","subsystems":[{"id":1}]}]})";
        send(R"({"req_type":"start_session")" + session);
        expect("Success");
        send(R"({"req_type":"ready_session")" + session);
    }

    void answer(const char* request, const char* text) {
        expect(request);
        send(text);
    }

    void expect(const char* text) {
        const std::string_view packet = receive();
        if (packet.find(text) == std::string_view::npos) {
            throw CallFailed("unexpected packet: " + std::string(packet));
        }
    }

    void send(const std::string& text) {
        if (::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
            throw CallFailed(std::string("cannot send: ") + std::strerror(errno));
        }
    }

    std::string_view receive() {
        const ssize_t size = ::recv(fd_, buffer_.data(), buffer_.size() - 1, 0);
        if (size <= 0) throw CallFailed("the service is gone");
        buffer_[static_cast<std::size_t>(size)] = '\0';
        return {buffer_.data(), static_cast<std::size_t>(size)};
    }

    const int fd_;
    const bool checks_;
    std::string text_;
    std::size_t digits_ = 0;
    std::string answer_;
    std::array<char, 4096> buffer_{};
};

}  // namespace

std::unique_ptr<Caller> make_packet_caller(const Listener& listener, Introduction introduction,
                                           Answer answer) {
    return std::make_unique<PacketCaller>(listener.accept(), introduction, answer);
}

}  // namespace bench
