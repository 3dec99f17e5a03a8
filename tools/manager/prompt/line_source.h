#pragma once

#include <optional>
#include <string>

#include "manager/base/file_descriptor.h"
#include "manager/console/interruption.h"

namespace manager {

/// Where command lines come from.
class LineSource {
  public:
    virtual ~LineSource() = default;

    /// Waits for the next line and returns it without its end; nothing at the end of the lines or
    /// when the program is interrupted.
    virtual std::optional<std::string> next() = 0;
};

/// The lines of a file or pipe. Reads what there is without waiting for more, so that a line of a
/// pipe is available as soon as it is written.
class FileLines : public LineSource {
  public:
    FileLines(FileDescriptor file, const Interruption& interruption)
        : file_(std::move(file)), interruption_(interruption) {}

    std::optional<std::string> next() override;

  private:
    bool read_more();

    FileDescriptor file_;
    const Interruption& interruption_;
    std::string buffer_;
};

}  // namespace manager
