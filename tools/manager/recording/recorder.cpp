#include "manager/recording/recorder.h"

#include <cerrno>
#include <cstring>

#include "manager/base/error.h"
#include "manager/console/json_lines.h"

namespace manager {

void Recorder::start(const std::string& file) {
    stop();
    const std::lock_guard lock(mutex_);
    name_ = file;
    file_ = std::ofstream(file, std::ios::binary | std::ios::trunc);
    if (!file_.is_open()) throw ManagerError("cannot write " + file + ": " + std::strerror(errno));
}

void Recorder::stop() {
    const std::lock_guard lock(mutex_);
    if (!file_.is_open()) return;
    const bool written = file_.good();
    file_.close();
    if (!written || file_.fail()) throw ManagerError("the recording " + name_ + " is not complete");
}

void Recorder::add(const Event& event) {
    const std::lock_guard lock(mutex_);
    // Flushed, so that a recording is of use even if the program is killed.
    if (file_.is_open()) file_ << json_line(event) << std::endl;
}

}  // namespace manager
