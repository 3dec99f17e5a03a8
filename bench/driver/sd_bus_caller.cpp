// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "driver/caller.h"

namespace bench {
namespace {

// Beyond that the arguments are an array of variants, which name their types one by one, as JSON
// does.
constexpr std::size_t kLongestSignature = 255;

int check(int result) {
    if (result < 0) throw std::runtime_error(std::string("sd-bus: ") + std::strerror(-result));
    return result;
}

std::int32_t number_of(const Argument& argument) {
    return static_cast<std::int32_t>(argument.number);
}

// Types are told apart by their first letters, which those of scalars have in signatures too.
std::string signature_of(const std::vector<Argument>& arguments) {
    std::string all;
    for (const Argument& argument : arguments) {
        if (argument.parts.empty()) {
            all += argument.type.front();
        } else {
            all += argument.type == "vector" ? "ai" : '(' + signature_of(argument.parts) + ')';
        }
    }
    return all;
}

void append(sd_bus_message* call, const std::vector<Argument>& arguments) {
    for (const Argument& argument : arguments) {
        const char type = argument.type.front();
        if (type == 'i') {
            const std::int32_t number = number_of(argument);
            check(sd_bus_message_append_basic(call, type, &number));
        } else if (type == 'd') {
            check(sd_bus_message_append_basic(call, type, &argument.number));
        } else if (argument.parts.empty()) {
            check(sd_bus_message_append_basic(call, type, argument.text.c_str()));
        } else if (argument.type == "vector") {
            void* space = nullptr;
            const std::size_t size = argument.parts.size() * sizeof(std::int32_t);
            check(sd_bus_message_append_array_space(call, 'i', size, &space));
            std::transform(argument.parts.begin(), argument.parts.end(),
                           static_cast<std::int32_t*>(space), number_of);
        } else {
            const std::string signature = signature_of(argument.parts);
            check(sd_bus_message_open_container(call, type == 'v' ? 'v' : 'r', signature.c_str()));
            append(call, argument.parts);
            check(sd_bus_message_close_container(call));
        }
    }
}

class SdBusCaller final : public Caller {
  public:
    explicit SdBusCaller(int connection) {
        sd_id128_t id;
        check(sd_id128_randomize(&id));
        check(sd_bus_new(&bus_));
        const int fd = ::fcntl(connection, F_DUPFD_CLOEXEC, 0);
        check(sd_bus_set_fd(bus_, fd, fd));
        check(sd_bus_set_server(bus_, 1, id));
        check(sd_bus_start(bus_));
    }

    ~SdBusCaller() override { sd_bus_flush_close_unref(bus_); }

    void use(const Message& message) override {
        message_ = message;
        checksum_ = checksum(message.arguments);
        has_variants_ = signature_of(message.arguments).size() > kLongestSignature;
        if (!has_variants_) return;
        for (Argument& argument : message_.arguments) argument = {"variant", 0, {}, {argument}};
    }

    void start(unsigned slot) override {
        sd_bus_message* call = nullptr;
        check(sd_bus_message_new_method_call(bus_, &call, nullptr, kObjectPath, "bench.Service",
                                             message_.function.c_str()));
        if (has_variants_) check(sd_bus_message_open_container(call, 'a', "v"));
        append(call, message_.arguments);
        if (has_variants_) check(sd_bus_message_close_container(call));
        std::uint64_t cookie = 0;
        check(sd_bus_send(bus_, call, &cookie));
        slots_[cookie] = slot;
        sd_bus_message_unref(call);
    }

    unsigned finish() override {
        sd_bus_message* reply = nullptr;
        while (reply == nullptr) {
            if (check(sd_bus_process(bus_, &reply)) == 0) check(sd_bus_wait(bus_, UINT64_MAX));
        }
        std::int64_t out = 0;
        std::uint64_t cookie = 0;
        if (sd_bus_message_is_method_error(reply, nullptr) ||
            sd_bus_message_read_basic(reply, 'x', &out) < 0 || out != checksum_) {
            throw std::runtime_error("sd-bus: unexpected reply");
        }
        check(sd_bus_message_get_reply_cookie(reply, &cookie));
        sd_bus_message_unref(reply);
        return slots_.extract(cookie).mapped();
    }

  private:
    sd_bus* bus_ = nullptr;
    Message message_;
    std::int64_t checksum_ = 0;
    bool has_variants_ = false;
    std::unordered_map<std::uint64_t, unsigned> slots_;
};

}  // namespace

std::unique_ptr<Caller> make_sd_bus_caller(int connection) {
    return std::make_unique<SdBusCaller>(connection);
}

}  // namespace bench
