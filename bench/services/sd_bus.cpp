// SPDX-License-Identifier: Apache-2.0
// The same service on sd-bus, peer to peer, in the way that is usual there: one thread, arguments
// read in place.
//
// Usage: bench-service-sd-bus, with a socket of bytes as standard input

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "message.h"

namespace {

int check(int result) {
    if (result < 0) throw std::runtime_error(std::strerror(-result));
    return result;
}

template <class T>
T read_basic(sd_bus_message* message, char type) {
    T value{};
    check(sd_bus_message_read_basic(message, type, &value));
    return value;
}

std::int64_t sum_of(sd_bus_message* message);

std::int64_t sum_of_value(sd_bus_message* message, char type, const char* contents) {
    if (type == SD_BUS_TYPE_INT32) return read_basic<std::int32_t>(message, type);
    if (type == SD_BUS_TYPE_DOUBLE) {
        return static_cast<std::int64_t>(read_basic<double>(message, type));
    }
    if (type == SD_BUS_TYPE_STRING) {
        return static_cast<std::int64_t>(std::strlen(read_basic<const char*>(message, type)));
    }
    if (type == SD_BUS_TYPE_ARRAY && std::strcmp(contents, "i") == 0) {
        const void* elements = nullptr;
        std::size_t size = 0;
        check(sd_bus_message_read_array(message, 'i', &elements, &size));
        const auto* const numbers = static_cast<const std::int32_t*>(elements);
        return std::accumulate(numbers, numbers + size / sizeof *numbers, std::int64_t{0});
    }
    check(sd_bus_message_enter_container(message, type, contents));
    const std::int64_t sum = sum_of(message);
    check(sd_bus_message_exit_container(message));
    return sum;
}

std::int64_t sum_of(sd_bus_message* message) {
    char type = 0;
    const char* contents = nullptr;
    std::int64_t sum = 0;
    while (check(sd_bus_message_peek_type(message, &type, &contents)) > 0) {
        sum += sum_of_value(message, type, contents);
    }
    return sum;
}

int on_call(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "x", sum_of(message));
}

void serve() {
    sd_bus* bus = nullptr;
    const int fd = ::dup(STDIN_FILENO);
    check(sd_bus_new(&bus));
    check(sd_bus_set_fd(bus, fd, fd));
    check(sd_bus_add_object(bus, nullptr, bench::kObjectPath, on_call, nullptr));
    check(sd_bus_start(bus));
    while (true) {
        const int handled = sd_bus_process(bus, nullptr);
        if (handled < 0) return;  // the driver is gone
        if (handled == 0) check(sd_bus_wait(bus, UINT64_MAX));
    }
}

}  // namespace

int main() {
    std::thread(serve).join();
    return 0;
}
