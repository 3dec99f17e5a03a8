// An input is a conversation: packets of the Manager, one per line, which a client in full
// operation receives on its own thread. The line "EOF" is the end of the Manager.

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/json_mutator.h"
#include "fuzz/library_setup.h"
#include "fuzz/live_client.h"
#include "private_dev/enter_private_dev.h"

namespace {

LiveClient* gClient = nullptr;

std::vector<std::string> lines_of(const std::string& input) {
    std::istringstream stream(input);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

// Changes one packet, or sends one twice.
std::string mutate_packets(const std::string& input, std::minstd_rand& random) {
    std::vector<std::string> packets = lines_of(input);
    if (packets.empty()) return input;
    std::string& packet = packets[random() % packets.size()];
    if (random() % 8 == 0) {
        packets.push_back(packet);
    } else {
        packet = mutate_json(packet, random);
    }
    std::string result;
    for (const std::string& line : packets) result += line + '\n';
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
    enter_private_dev(VEXON_PRIVATE_DEV, *argv);
    quiet_log();
    gClient = new LiveClient;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    gClient->handle(lines_of({reinterpret_cast<const char*>(data), size}));
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
    return mutate_input(data, size, max_size, seed, mutate_packets);
}
