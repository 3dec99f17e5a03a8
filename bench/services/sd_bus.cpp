// The same service on sd-bus, peer to peer, in the way that is usual there: one thread, arguments
// read in place.

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "message.h"
#include "services/until_told.h"

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

std::int64_t sum_of_container(sd_bus_message* message, char type, const char* contents) {
    check(sd_bus_message_enter_container(message, type, contents));
    const std::int64_t sum = sum_of(message);
    check(sd_bus_message_exit_container(message));
    return sum;
}

std::int64_t sum_of_array(sd_bus_message* message, const char* contents) {
    if (std::strcmp(contents, "i") != 0) {
        return sum_of_container(message, SD_BUS_TYPE_ARRAY, contents);
    }
    const void* elements = nullptr;
    std::size_t size = 0;
    check(sd_bus_message_read_array(message, 'i', &elements, &size));
    const auto* const numbers = static_cast<const std::int32_t*>(elements);
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < size / sizeof(std::int32_t); ++i) sum += numbers[i];
    return sum;
}

std::int64_t sum_of_value(sd_bus_message* message, char type, const char* contents) {
    switch (type) {
        case SD_BUS_TYPE_INT32:
            return read_basic<std::int32_t>(message, type);
        case SD_BUS_TYPE_DOUBLE:
            return static_cast<std::int64_t>(read_basic<double>(message, type));
        case SD_BUS_TYPE_STRING:
            return static_cast<std::int64_t>(std::strlen(read_basic<const char*>(message, type)));
        case SD_BUS_TYPE_ARRAY:
            return sum_of_array(message, contents);
        default:
            return sum_of_container(message, type, contents);
    }
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

void serve(int fd) {
    sd_bus* bus = nullptr;
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

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::thread(serve, bench::connect_to(argv[1], SOCK_STREAM)).detach();
    bench::wait_until_told();
    return 0;
}
