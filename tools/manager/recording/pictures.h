// SPDX-License-Identifier: Apache-2.0
// Two pictures of a recorded conversation: a trace for trace viewers, and a page with a diagram.
#pragma once

#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "manager/recording/exchanges.h"

namespace manager {

/// Writes a JSON array in the Trace Event Format, with times in microseconds since the first event.
///
/// Each client is a process of the viewer, and a session a slice of it, with a slice below for each
/// task and other request of the Manager, from call to answer. Tasks that overlap are on several
/// tracks, each with the session above. A session lasts until it is ended as a whole or its client
/// goes, and until the last answer. A request of a client is a slice on a track of the client and
/// on one of the Manager, with a flow between them. Everything else is an instant.
void write_trace(const std::vector<PicturedEvent>& events, std::ostream& output);

/// Writes a page of HTML that loads nothing: a sequence diagram with the packets, and a search.
void write_diagram(const std::vector<PicturedEvent>& events, std::ostream& output);

/// The files of the pictures. No name, no picture.
class Pictures {
  public:
    /// Begins new files. Throws ManagerError if one cannot be written.
    Pictures(const std::string& trace, const std::string& diagram);

    /// The name of a temporary file, to record in what is to be drawn. It ends with this object.
    /// Throws ManagerError if there can be none.
    std::string recording();

    /// Draws what is recorded. Calls `wrong` with a message for each line that is left out because
    /// it is no line of a recording. Throws ManagerError if the recording cannot be read, has lines
    /// but none is one of a conversation, or a part of a picture is lost.
    void draw(const std::string& recording, const std::function<void(const std::string&)>& wrong);

  private:
    using Write = void (*)(const std::vector<PicturedEvent>& events, std::ostream& output);
    struct Picture {
        std::string name;
        Write write;
        std::ofstream file;
    };

    std::vector<Picture> pictures_;
    std::shared_ptr<std::FILE> recording_;
};

}  // namespace manager
