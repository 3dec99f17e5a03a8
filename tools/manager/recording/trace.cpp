#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "manager/base/json.h"
#include "manager/recording/pictures.h"

namespace manager {
namespace {

using Time = std::chrono::nanoseconds;
using Events = std::vector<PicturedEvent>;
using Indices = std::vector<std::size_t>;

constexpr int kManagerProcess = 1;

struct Track {
    int process;
    int thread;
    /// The end of its last slice.
    Time taken;
};

/// A track where a slice may begin at the time, or none.
Track* find_free(std::vector<Track>& tracks, Time begin) {
    const auto free = std::find_if(tracks.begin(), tracks.end(),
                                   [&](const Track& track) { return track.taken <= begin; });
    return free == tracks.end() ? nullptr : &*free;
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
    Indices requests;
};

bool is_asked_by(const PicturedEvent& event, Kind direction) {
    return event.role == Role::Request && event.kind == direction;
}

/// Whether the answer says that its session is over.
bool ends_session(const PicturedEvent& answer, const Events& events, const Session& session) {
    if (!answer.partner) return false;
    if (answer.type == "start_session") return answer.failed && session.requests.size() == 1;
    const std::string& ended = events[*answer.partner].arguments;
    return answer.type == "end_session" && !answer.failed && (ended.empty() || ended == "[]");
}

/// The sessions of one client in the order of their begins; each encloses its requests.
std::vector<Session> find_sessions(const Events& events, const Indices& indices) {
    std::vector<Session> sessions;
    std::map<std::string, std::size_t> open;
    const auto close_all = [&](Time time) {
        for (const auto& [id, session] : open) sessions[session].end = time;
        open.clear();
    };
    for (const std::size_t i : indices) {
        const PicturedEvent& event = events[i];
        if (!is_packet(event)) close_all(event.begin);
        auto of_event = open.find(event.session);
        if (is_asked_by(event, Kind::ToClient)) {
            if (of_event == open.end()) {
                of_event = open.emplace(event.session, sessions.size()).first;
                sessions.push_back({"session " + event.session, event.begin, {}, {}});
            }
            sessions[of_event->second].requests.push_back(i);
        } else if (of_event != open.end() &&
                   ends_session(event, events, sessions[of_event->second])) {
            sessions[of_event->second].end = event.begin;
            open.erase(of_event);
        }
    }
    close_all(events.back().begin);
    for (Session& session : sessions) {
        for (const std::size_t i : session.requests) {
            if (events[i].partner) session.end = std::max(session.end, events[i].end);
        }
    }
    return sessions;
}

class Trace {
  public:
    explicit Trace(const Events& events) : events_(events) {}

    void draw() {
        add_name("process_name", kManagerProcess, "Manager");
        std::map<int, Indices> clients;
        Indices all(events_.size());
        for (std::size_t i = 0; i < events_.size(); ++i) {
            all[i] = i;
            clients[events_[i].client].push_back(i);
        }
        int process = kManagerProcess;
        for (const auto& [client, indices] : clients) {
            add_name("process_name", ++process, fmt::format("client {}", client));
            draw_instants(process, indices);
            draw_requests(process, indices, 's');
            std::vector<Track> tracks;
            for (const Session& session : find_sessions(events_, indices)) {
                draw_session(process, tracks, session);
            }
        }
        draw_requests(kManagerProcess, all, 'f');
    }

    void write(std::ostream& output) {
        // Of slices that begin at the same time, the one added first encloses the others.
        const auto earlier = [](const auto& a, const auto& b) { return a.first < b.first; };
        std::stable_sort(lines_.begin(), lines_.end(), earlier);
        const char* separator = "[\n";
        for (const auto& [time, line] : lines_) {
            output << std::exchange(separator, ",\n") << line;
        }
        output << (lines_.empty() ? "[]\n" : "\n]\n");
    }

  private:
    void draw_instants(int process, const Indices& indices) {
        const Track track = add_name("thread_name", process, "notices");
        for (const std::size_t i : indices) {
            const PicturedEvent& event = events_[i];
            if (event.role == Role::Request || event.partner) continue;
            add('i', track, event.begin, title(event),
                R"("s":"t","args":{"packet":)" + json_value(event.text) + '}');
        }
    }

    /// What clients ask, with one end of the flows between them and the Manager.
    void draw_requests(int process, const Indices& indices, char flow) {
        std::vector<Track> tracks;
        for (const std::size_t i : indices) {
            const PicturedEvent& request = events_[i];
            if (!is_asked_by(request, Kind::FromClient)) continue;
            const Track track = take(tracks, process, "requests", request.begin, request.end);
            draw_request(track, request, request.end);
            add(flow, track, request.begin, request.type,
                fmt::format(R"("cat":"request","id":{},"bp":"e")", i));
        }
    }

    void draw_session(int process, std::vector<Track>& tracks, const Session& session) {
        std::vector<Track> own;
        for (const std::size_t i : session.requests) {
            const PicturedEvent& request = events_[i];
            Track* track = find_free(own, request.begin);
            if (track == nullptr) {
                track = &own.emplace_back(
                    take(tracks, process, "sessions", session.begin, session.end));
                add_slice(*track, session.begin, session.end, session.name, R"("cat":"session")");
            }
            track->taken = std::min(request.end, session.end);
            draw_request(*track, request, track->taken);
        }
    }

    void draw_request(const Track& track, const PicturedEvent& request, Time end) {
        const bool task = request.type == "exec_task";
        std::string args = "\"request\":" + json_value(request.text);
        if (task) args += ",\"arguments\":" + json_value(request.arguments);
        if (request.partner) {
            const PicturedEvent& answer = events_[*request.partner];
            if (task) args += ",\"status\":" + json_text(answer.outcome);
            args += ",\"answer\":" + json_value(answer.text);
        }
        add_slice(track, request.begin, end, task ? request.subject : title(request),
                  "\"cat\":\"" + request.type + "\",\"args\":{" + args + '}');
    }

    /// The tracks of one kind are as many as are needed for slices that overlap. Slices have to
    /// come in the order of their begins.
    Track take(std::vector<Track>& tracks, int process, const char* kind, Time begin, Time end) {
        Track* free = find_free(tracks, begin);
        if (free == nullptr) {
            const auto number = tracks.empty() ? "" : fmt::format(" ({})", tracks.size() + 1);
            free = &tracks.emplace_back(add_name("thread_name", process, kind + number));
        }
        free->taken = end;
        return *free;
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
        lines_.emplace_back(
            time, fmt::format(R"({{"ph":"{}","pid":{},"tid":{},"ts":{},"name":{},)", phase,
                              track.process, track.thread, microseconds(time), json_text(name)) +
                      members + '}');
    }

    const Events& events_;
    int last_thread_ = 0;
    std::vector<std::pair<Time, std::string>> lines_;
};

}  // namespace

void write_trace(const Events& events, std::ostream& output) {
    Trace trace(events);
    if (!events.empty()) trace.draw();
    trace.write(output);
}

}  // namespace manager
