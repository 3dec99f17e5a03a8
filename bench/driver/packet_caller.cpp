// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/socket.h>

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
constexpr int kBufferBytes = 1024 * 1024;

// The Manager.
class PacketCaller final : public Caller {
  public:
    PacketCaller(manager::FileDescriptor connection, PacketService service)
        : fd_(std::move(connection)), checks_(service != PacketService::kStepOfFloor) {
        ::fcntl(fd_.get(), F_SETFL, 0);  // blocks
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &kBufferBytes, sizeof kBufferBytes);
        if (service == PacketService::kLibrary) introduce();
    }

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
        const std::string_view reply = receive(checks_ ? std::string_view(answer_) : "");
        const std::size_t key = reply.rfind(kTransactionKey);
        if (key == std::string_view::npos)
            throw std::runtime_error("no reply: " + std::string(reply));
        const auto id = std::strtoul(reply.data() + key + kTransactionKey.size(), nullptr, 10);
        return static_cast<unsigned>(id - kFirstTransaction);
    }

  private:
    // Registers the service, then opens a session for it.
    void introduce() {
        receive("\"INIT\"");
        send(R"({"req_type":"INIT","service_id":1})");
        receive("\"AUTH\"");
        send(R"({"req_type":"AUTH","opcode":"26","result":0})");
        receive("\"REDY\"");
        send(R"({"req_type":"REDY","opcode":"26","result":0})");
        const std::string session = R"(,"session_id":5,"transac_id":1,)"
                                    R"("opcodes":[{"id":"1a","subsystems":[{"id":1}]}]})";
        send(R"({"req_type":"start_session")" + session);
        receive("Success");
        send(R"({"req_type":"ready_session")" + session);
    }

    void send(const std::string& text) {
        if (::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error(std::string("cannot send: ") + std::strerror(errno));
        }
    }

    // Receives a packet, which has to hold the text.
    std::string_view receive(std::string_view text) {
        const ssize_t size = ::recv(fd_.get(), buffer_.data(), buffer_.size() - 1, 0);
        if (size <= 0) throw std::runtime_error("the service is gone");
        buffer_[static_cast<std::size_t>(size)] = '\0';
        const std::string_view packet(buffer_.data(), static_cast<std::size_t>(size));
        if (packet.find(text) != std::string_view::npos) return packet;
        throw std::runtime_error("unexpected packet: " + std::string(packet));
    }

    const manager::FileDescriptor fd_;
    const bool checks_;
    std::string text_;
    std::size_t digits_ = 0;
    std::string answer_;
    std::array<char, 4096> buffer_{};
};

}  // namespace

std::unique_ptr<Caller> make_packet_caller(manager::FileDescriptor connection,
                                           PacketService service) {
    return std::make_unique<PacketCaller>(std::move(connection), service);
}

}  // namespace bench
