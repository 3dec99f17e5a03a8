// SPDX-License-Identifier: Apache-2.0
#include "manager/recording/pictures.h"

#include <cstdio>

namespace manager {

Pictures::Pictures(const std::string& trace, const std::string& diagram) {
    for (const auto& [name, write] : {std::pair(trace, &write_trace), {diagram, &write_diagram}}) {
        if (name.empty()) continue;
        pictures_.push_back({name, write, std::ofstream(name, std::ios::binary)});
        if (!pictures_.back().file.is_open()) throw system_failure("cannot write " + name);
    }
}

std::string Pictures::recording() {
    if (!recording_) {
        std::FILE* const file = std::tmpfile();
        if (file == nullptr) throw system_failure("no temporary file");
        recording_.reset(file, std::fclose);
    }
    return "/proc/self/fd/" + std::to_string(fileno(recording_.get()));
}

void Pictures::draw(const std::string& recording,
                    const std::function<void(const std::string&)>& wrong) {
    bool damaged = false;
    const auto events = pair_up(read_events(recording, [&](const std::string& message) {
        damaged = true;
        wrong(message);
    }));
    if (damaged && events.empty()) throw ManagerError(recording + " is no recording");
    for (Picture& picture : pictures_) {
        picture.write(events, picture.file);
        picture.file.close();
        if (picture.file.fail()) throw ManagerError(picture.name + " is not complete");
    }
}

}  // namespace manager
