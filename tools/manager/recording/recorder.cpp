#include "manager/recording/recorder.h"

#include <cerrno>
#include <cstring>

#include "manager/base/error.h"

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

}  // namespace manager
