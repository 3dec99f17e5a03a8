// What the conversation tells of the services: who they are, which sessions they take part in, and
// what is wrong with what they send.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manager/services/definition.h"
#include "manager/simulation/event.h"

namespace manager {

struct Service {
    Opcode opcode;
    int client;
    Definition definition;
    /// Whether the Manager has accepted its AUTH, and its REDY.
    bool registered = false;
    bool ready = false;

    /// Its name or, if it has none, its opcode.
    std::string name() const;
};

enum class SessionState { Unknown, Starting, Refused, Started, Ready };

/// Follows the conversation. Thread-safety: every member may be called from any thread.
class Services {
  public:
    /// Takes note of an event, a packet being `message` if it is JSON, and returns what is wrong
    /// with a packet of a client.
    std::vector<std::string> add(const Event& event, const std::optional<Json::Value>& message);

    /// The services that are registered, by opcode.
    std::vector<Service> list() const;

    /// The one whose name or opcode this is, the one that registered last if there are several.
    std::optional<Service> find(const std::string& name) const;

    SessionState session(const Service& service, std::int64_t session) const;
    /// The sessions that the service takes part in.
    std::vector<std::int64_t> sessions(const Service& service) const;
    /// A number from `first` on that no session has had.
    std::int64_t unused_session(std::int64_t first) const;

    /// Whether the client is still to reply to the task.
    bool is_pending(const Service& service, std::int64_t transaction) const;

  private:
    struct Task {
        Opcode opcode;
        std::string function;
    };
    using Key = std::pair<int, std::int64_t>;
    using Handler = void (Services::*)(int client, const Json::Value& message);
    static Handler handler(const std::string& type, Kind kind);

    void ask_id(int client, const Json::Value& message);
    void give_id(int client, const Json::Value& message);
    void ask_auth(int client, const Json::Value& message);
    void ask_ready(int client, const Json::Value& message);
    void accept_auth(int client, const Json::Value& message);
    void accept_ready(int client, const Json::Value& message);
    void ask_start(int client, const Json::Value& message);
    void ask_ready_session(int client, const Json::Value& message);
    void ask_end(int client, const Json::Value& message);
    void call(int client, const Json::Value& message);
    void start(int client, const Json::Value& message);
    void end(int client, const Json::Value& message);
    void reply(int client, const Json::Value& message);
    void query(int client, const Json::Value& message);
    void leave(int client, const Json::Value& message);

    void check_definition(const Service& service, const Json::Value& message);
    void check_service_id(int client, const Json::Value& message);
    void check_reply(const Task& task, const Service* service, const Json::Value& message);
    void check_text(int client, const std::string& text);
    void forget(int client);
    Service* find(int client, Opcode opcode);
    Service* accepted(int client, const Json::Value& message);
    void complain(const std::string& what) { faults_.push_back(what); }

    mutable std::mutex mutex_;
    std::vector<Service> services_;
    /// By client, as INIT gave it.
    std::map<int, std::int64_t> ids_;
    std::map<Key, std::map<Opcode, SessionState>> sessions_;
    /// What an end_session that is under way is for; all opcodes if none is named.
    std::map<Key, std::vector<Opcode>> endings_;
    std::int64_t last_session_ = 0;
    std::map<Key, Task> tasks_;
    /// Of the packet that is being looked at.
    std::vector<std::string> faults_;
};

}  // namespace manager
