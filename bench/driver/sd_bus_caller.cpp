#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "driver/caller.h"

namespace bench {
namespace {

constexpr std::size_t kLongestSignature = 255;

int check(int result) {
    if (result < 0) throw CallFailed(std::string("sd-bus: ") + std::strerror(-result));
    return result;
}

std::string signature_of(const Argument& argument);

std::string signature_of(const std::vector<Argument>& arguments) {
    std::string all;
    for (const Argument& argument : arguments) all += signature_of(argument);
    return all;
}

std::string signature_of(const Argument& argument) {
    if (argument.type == "int32") return "i";
    if (argument.type == "double") return "d";
    if (argument.type == "string") return "s";
    if (argument.type == "vector") return "ai";
    return "(" + signature_of(argument.parts) + ")";
}

void append_vector(sd_bus_message* call, const std::vector<Argument>& elements) {
    void* space = nullptr;
    check(sd_bus_message_append_array_space(call, 'i', elements.size() * sizeof(std::int32_t),
                                            &space));
    auto* next = static_cast<std::int32_t*>(space);
    for (const Argument& element : elements) *next++ = static_cast<std::int32_t>(element.number);
}

void append(sd_bus_message* call, const Argument& argument) {
    if (argument.type == "int32") {
        const auto number = static_cast<std::int32_t>(argument.number);
        check(sd_bus_message_append_basic(call, 'i', &number));
    } else if (argument.type == "double") {
        check(sd_bus_message_append_basic(call, 'd', &argument.number));
    } else if (argument.type == "string") {
        check(sd_bus_message_append_basic(call, 's', argument.text.c_str()));
    } else if (argument.type == "vector") {
        append_vector(call, argument.parts);
    } else {
        check(sd_bus_message_open_container(call, 'r', signature_of(argument.parts).c_str()));
        for (const Argument& member : argument.parts) append(call, member);
        check(sd_bus_message_close_container(call));
    }
}

// A signature is limited. Beyond that the arguments are an array of variants, which name their
// types one by one, as JSON does.
void append_variants(sd_bus_message* call, const std::vector<Argument>& arguments) {
    check(sd_bus_message_open_container(call, 'a', "v"));
    for (const Argument& argument : arguments) {
        check(sd_bus_message_open_container(call, 'v', signature_of(argument).c_str()));
        append(call, argument);
        check(sd_bus_message_close_container(call));
    }
    check(sd_bus_message_close_container(call));
}

class SdBusCaller final : public Caller {
  public:
    explicit SdBusCaller(int fd) {
        sd_id128_t id;
        check(sd_id128_randomize(&id));
        check(sd_bus_new(&bus_));
        check(sd_bus_set_fd(bus_, fd, fd));
        check(sd_bus_set_server(bus_, 1, id));
        check(sd_bus_start(bus_));
    }

    ~SdBusCaller() override { sd_bus_flush_close_unref(bus_); }

    void use(const Message& message) override {
        message_ = message;
        checksum_ = checksum(message.arguments);
        has_variants_ = signature_of(message.arguments).size() > kLongestSignature;
    }

    void start(unsigned slot) override {
        sd_bus_message* call = nullptr;
        check(sd_bus_message_new_method_call(bus_, &call, nullptr, kObjectPath, kInterface,
                                             message_.function.c_str()));
        if (has_variants_) {
            append_variants(call, message_.arguments);
        } else {
            for (const Argument& argument : message_.arguments) append(call, argument);
        }
        std::uint64_t cookie = 0;
        check(sd_bus_send(bus_, call, &cookie));
        slots_[cookie] = slot;
        sd_bus_message_unref(call);
    }

    unsigned finish() override {
        sd_bus_message* const reply = receive();
        std::int64_t out = 0;
        std::uint64_t cookie = 0;
        if (sd_bus_message_is_method_error(reply, nullptr) ||
            sd_bus_message_read_basic(reply, 'x', &out) < 0 || out != checksum_) {
            throw CallFailed("sd-bus: unexpected reply");
        }
        check(sd_bus_message_get_reply_cookie(reply, &cookie));
        sd_bus_message_unref(reply);
        return slots_.extract(cookie).mapped();
    }

  private:
    sd_bus_message* receive() {
        while (true) {
            sd_bus_message* message = nullptr;
            const int handled = check(sd_bus_process(bus_, &message));
            if (message != nullptr) return message;
            if (handled == 0) check(sd_bus_wait(bus_, UINT64_MAX));
        }
    }

    sd_bus* bus_ = nullptr;
    Message message_;
    std::int64_t checksum_ = 0;
    bool has_variants_ = false;
    std::unordered_map<std::uint64_t, unsigned> slots_;
};

}  // namespace

std::unique_ptr<Caller> make_sd_bus_caller(const Listener& listener) {
    return std::make_unique<SdBusCaller>(listener.accept());
}

}  // namespace bench
