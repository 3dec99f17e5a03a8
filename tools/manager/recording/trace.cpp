// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <list>
#include <map>
#include <utility>

#include "manager/base/json.h"
#include "manager/recording/pictures.h"

namespace manager {
namespace {

using Time = std::chrono::nanoseconds;
using Events = std::vector<const PicturedEvent*>;

constexpr int kManagerProcess = 1;

struct Track {
    int process;
    int thread;
    /// The end of its last slice.
    Time taken;
};

/// Takes a track where the slice may begin, and makes one if need be. Slices have to come in the
/// order of their begins.
template <typename Make>
Track take(std::vector<Track>& tracks, Time begin, Time end, Make make) {
    auto free = std::find_if(tracks.begin(), tracks.end(),
                             [&](const Track& track) { return track.taken <= begin; });
    if (free == tracks.end()) free = tracks.insert(tracks.end(), make());
    free->taken = end;
    return *free;
}

std::string microseconds(Time time) {
    return fmt::format("{}.{:03}", time.count() / 1000, time.count() % 1000);
}

/// A packet is a JSON value if every reader takes it, else a text.
std::string json_value(const std::string& text) {
    return is_strict_json(text) ? text : json_text(text);
}

struct Session {
    std::string name;
    Time begin;
    Time end;
    Events requests = {};
};

bool is_asked_by(const PicturedEvent& event, Kind direction) {
    return event.role == Role::Request && event.kind == direction;
}

/// Whether the answer says that its session is over.
bool ends(const PicturedEvent& answer, const Session& session) {
    if (!answer.partner) return false;
    if (answer.type == "start_session") return answer.failed && session.requests.size() == 1;
    const std::string& ended = answer.partner->arguments;
    return answer.type == "end_session" && !answer.failed && (ended.empty() || ended == "[]");
}

/// The sessions of one client in the order of their begins; each encloses its requests, and lasts
/// until `last` if nothing ends it.
std::list<Session> find_sessions(const Events& events, Time last) {
    std::list<Session> sessions;
    std::map<std::string, Session*> open;
    for (const PicturedEvent* const event : events) {
        if (!is_packet(*event)) {
            for (const auto& [id, session] : open) session->end = event->begin;
            open.clear();
        }
        auto of_event = open.find(event->session);
        if (is_asked_by(*event, Kind::ToClient)) {
            if (of_event == open.end()) {
                sessions.push_back({"session " + event->session, event->begin, last});
                of_event = open.emplace(event->session, &sessions.back()).first;
            }
            of_event->second->requests.push_back(event);
        } else if (of_event != open.end() && ends(*event, *of_event->second)) {
            of_event->second->end = event->begin;
            open.erase(of_event);
        }
    }
    for (Session& session : sessions) {
        for (const PicturedEvent* const request : session.requests) {
            if (request->partner) session.end = std::max(session.end, request->end);
        }
    }
    return sessions;
}

class Trace {
  public:
    void draw(const std::vector<PicturedEvent>& events) {
        add_name("process_name", kManagerProcess, "Manager");
        std::map<int, Events> clients;
        Events all;
        for (const PicturedEvent& event : events) {
            all.push_back(&event);
            clients[event.client].push_back(&event);
        }
        int process = kManagerProcess;
        for (const auto& [client, own] : clients) {
            add_name("process_name", ++process, fmt::format("client {}", client));
            draw_instants(process, own);
            draw_requests(process, own, 's');
            std::vector<Track> tracks;
            for (const Session& session : find_sessions(own, events.back().begin)) {
                draw_session(process, tracks, session);
            }
        }
        draw_requests(kManagerProcess, all, 'f');
    }

    void write(std::ostream& output) const {
        const char* separator = "[\n";
        for (const auto& [time, line] : lines_) {
            output << std::exchange(separator, ",\n") << line;
        }
        output << (lines_.empty() ? "[]\n" : "\n]\n");
    }

  private:
    void draw_instants(int process, const Events& events) {
        const Track track = add_name("thread_name", process, "notices");
        for (const PicturedEvent* const event : events) {
            if (event->role == Role::Request || event->partner) continue;
            add('i', track, event->begin, title(*event),
                R"("s":"t","args":{"packet":)" + json_value(event->text) + '}');
        }
    }

    /// What clients ask, with one end of the flows between them and the Manager.
    void draw_requests(int process, const Events& events, char flow) {
        std::vector<Track> tracks;
        for (const PicturedEvent* const event : events) {
            if (!is_asked_by(*event, Kind::FromClient)) continue;
            const Track track = take(tracks, event->begin, event->end,
                                     [&] { return add_track(process, "requests", tracks.size()); });
            draw_request(track, *event, event->end);
            add(flow, track, event->begin, event->type,
                fmt::format(R"("cat":"request","id":{},"bp":"e")", event->line));
        }
    }

    void draw_session(int process, std::vector<Track>& tracks, const Session& session) {
        std::vector<Track> own;
        for (const PicturedEvent* const request : session.requests) {
            const Time end = std::min(request->end, session.end);
            const Track track = take(own, request->begin, end, [&] {
                const Track outer = take(tracks, session.begin, session.end, [&] {
                    return add_track(process, "sessions", tracks.size());
                });
                add_slice(outer, session.begin, session.end, session.name, R"("cat":"session")");
                return outer;
            });
            draw_request(track, *request, end);
        }
    }

    void draw_request(const Track& track, const PicturedEvent& request, Time end) {
        const bool task = request.type == "exec_task";
        std::string args = "\"request\":" + json_value(request.text);
        if (task) args += ",\"arguments\":" + json_value(request.arguments);
        if (request.partner) {
            if (task) args += ",\"status\":" + json_text(request.partner->outcome);
            args += ",\"answer\":" + json_value(request.partner->text);
        }
        add_slice(track, request.begin, end, task ? request.subject : title(request),
                  "\"cat\":\"" + request.type + "\",\"args\":{" + args + '}');
    }

    /// The tracks of one kind are as many as are needed for slices that overlap.
    Track add_track(int process, const char* kind, std::size_t others) {
        const std::string number = others == 0 ? "" : fmt::format(" ({})", others + 1);
        return add_name("thread_name", process, kind + number);
    }

    Track add_name(const char* kind, int process, const std::string& name) {
        const Track track{process, ++last_thread_, {}};
        add('M', track, {}, kind, "\"args\":{\"name\":" + json_text(name) + '}');
        return track;
    }

    void add_slice(const Track& track, Time begin, Time end, const std::string& name,
                   const std::string& members) {
        add('X', track, begin, name, "\"dur\":" + microseconds(end - begin) + ',' + members);
    }

    /// `members` is what else the object holds, as in "a":1,"b":2.
    void add(char phase, const Track& track, Time time, const std::string& name,
             const std::string& members) {
        lines_.emplace(
            time, fmt::format(R"({{"ph":"{}","pid":{},"tid":{},"ts":{},"name":{},)", phase,
                              track.process, track.thread, microseconds(time), json_text(name)) +
                      members + '}');
    }

    int last_thread_ = 0;
    /// In the order of time; of slices that begin at the same time, the one added first encloses
    /// the others.
    std::multimap<Time, std::string> lines_;
};

}  // namespace

void write_trace(const std::vector<PicturedEvent>& events, std::ostream& output) {
    Trace trace;
    if (!events.empty()) trace.draw(events);
    trace.write(output);
}

}  // namespace manager
