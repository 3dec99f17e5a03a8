// SPDX-License-Identifier: Apache-2.0
/// \file
/// Client library for processes that offer services through the Manager.
///
/// A process calls vexa_svc_init() once, registers each of its services, declares them ready with
/// two callbacks and is then driven by the Manager. Link with -lvexon2_0; nothing else is needed.
///
/// For typed access to arguments see vexon2_0_arguments.h, for building replies vexon2_0_reply.h.
///
/// Threads. The library has a receive thread and one thread per running task.
///   - State callbacks run on the receive thread, one at a time. Until a callback returns, no other
///     message of the Manager is handled, so it must be short and must not wait for another thread
///     that waits for the Manager.
///   - Exec callbacks run on a thread of their own, several at once, and may block.
///   - Every function below may be called from any thread and from an exec callback. Which of them
///     must not be called from a state callback is said at vexa_state_callback_t or at each.
/// Callbacks must not let an exception out.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// Marks what the library exports.
#define VEXON_API __attribute__((visibility("default")))

// ---------------------------------------------------------------------------------------------
// State notifications

/// What a state callback is told about.
enum vexa_status_t : std::int32_t {
    VEXA_STATUS_TERMINATED = 0,  ///< Manager lost, all sessions ended (lowest opcode only)
    /// Manager reachable again within 20 s, but nothing is received any more: de-initialise and
    /// start over, on another thread (lowest opcode only). Not every loss is told in this way: see
    /// vexa_svc_on_receive_end().
    VEXA_STATUS_RECONNECTED = 1,
    VEXA_STATUS_SESSION_START = 2,          ///< may the session start? 0 accepts, all else refuses
    VEXA_STATUS_SESSION_END = 3,            ///< the session ends; not 0 refuses if named by opcode
    VEXA_STATUS_PERMISSION_CHANGE = 4,      ///< a package's permission was granted or withdrawn
    VEXA_STATUS_STATE_CHANGE = 5,           ///< a state of the system changed
    VEXA_STATUS_SESSION_READY = 6,          ///< tasks of the session may come from now on
    VEXA_STATUS_SYSTEM_SETTING_CHANGE = 7,  ///< a setting of the system changed
};

/// One notification. It belongs to the library and dies when the callback returns: copy what is
/// needed, keep no pointer to it. Fields that a notification does not speak of are empty or 0.
struct vexa_req_t {
    vexa_status_t status;            ///< what happened
    std::uint32_t opcode;            ///< sessions: the service's opcode
    std::uint32_t subsys_id;         ///< sessions: the service's subsystem
    std::uint32_t session_id;        ///< the session, 0 if none is concerned
    std::string permission;          ///< PERMISSION_CHANGE: the permission's name
    std::int64_t permission_status;  ///< PERMISSION_CHANGE: 1 granted, 0 not
    std::string state;    ///< STATE_CHANGE and SYSTEM_SETTING_CHANGE: name and value, "name:value"
    std::string package;  ///< the three changes: the package they concern, "null" if none was named
};

/// Told of sessions and changes. `service_id` is what vexa_svc_init() returned, `user_data` what
/// the service gave to _vexa_svc_ready(). The result matters for SESSION_START and SESSION_END
/// only.
///
/// Runs on the receive thread, or on that which calls terminate_sessions(), with a lock of the
/// library held. From inside it do not call vexa_svc_init(), _vexa_svc_register_auth() or
/// _vexa_svc_ready() (they wait for an answer that this very thread would have to receive; they log
/// a line and return -1), nor, in the three changes, vexa_svc_deinit() (logs a line and returns
/// -1). Queries are sent but not waited for.
typedef int (*vexa_state_callback_t)(int service_id, vexa_req_t* request, void* user_data);

/// Why nobody receives what the Manager sends. The first and the last are told when this process
/// has already seen to it itself. After the others the service id and the declared services stay as
/// they are, apart from the id after REFUSED, until vexa_svc_deinit() and vexa_svc_init() make a
/// new connection.
enum vexa_receive_end_t : std::int32_t {
    /// The Manager closed, and before the library had reconnected this process called
    /// vexa_svc_deinit(), or vexa_svc_init() where there was no service id.
    VEXA_RECEIVE_END_CLOSED = 0,
    /// The Manager went away with a packet unread. Sessions have not been ended and no state
    /// callback is told: see terminate_sessions().
    VEXA_RECEIVE_END_RESET = 1,
    VEXA_RECEIVE_END_ERROR = 2,  ///< the thread could not receive, for want of memory
    /// The Manager gave a negative service id: vexa_svc_init() returns it, or, when that has
    /// returned already, the process has lost its id. An id below -1 has to be given back with
    /// vexa_svc_deinit() before vexa_svc_init() asks again.
    VEXA_RECEIVE_END_REFUSED = 3,
    VEXA_RECEIVE_END_RECONNECTED = 4,   ///< the Manager closed; connected again, to send only
    VEXA_RECEIVE_END_TIMED_OUT = 5,     ///< the Manager closed and was not back within 20 s
    VEXA_RECEIVE_END_DISCONNECTED = 6,  ///< this process closed the connection, or began anew
};

/// Told that nobody receives any more, see vexa_svc_on_receive_end().
typedef void (*vexa_receive_end_callback_t)(vexa_receive_end_t reason, void* user_data);

// ---------------------------------------------------------------------------------------------
// Arguments of a task

/// Type of an argument, a struct member or a vector.
enum vexon_data_type_t : std::int32_t {
    VEXON_TYPE_NONE = 0,
    VEXON_TYPE_UINT8 = 1,      ///< ParamValues<unsigned char>
    VEXON_TYPE_UINT16 = 2,     ///< ParamValues<unsigned short>
    VEXON_TYPE_UINT32 = 3,     ///< ParamValues<unsigned int>
    VEXON_TYPE_UINT64 = 4,     ///< ParamValues<std::uint64_t>
    VEXON_TYPE_INT8 = 5,       ///< ParamValues<signed char>
    VEXON_TYPE_INT16 = 6,      ///< ParamValues<short>
    VEXON_TYPE_INT32 = 7,      ///< ParamValues<int>
    VEXON_TYPE_INT64 = 8,      ///< ParamValues<std::int64_t>
    VEXON_TYPE_DOUBLE = 9,     ///< ParamValues<double>
    VEXON_TYPE_STRING = 10,    ///< ParamValues<std::string>
    VEXON_TYPE_BOOLEAN = 11,   ///< ParamValues<bool>
    VEXON_TYPE_ENUM = 12,      ///< ParamValues<int>
    VEXON_TYPE_BLOB = 13,      ///< ParamValues<std::string>, the text as it was received
    VEXON_TYPE_CALLBACK = 14,  ///< never stored
    VEXON_TYPE_VECTOR = 15,    ///< never stored: a vector carries one of the tags below
    VEXON_TYPE_STRUCT = 16,    ///< ParamValues<vexon_type_map_t>, in value_queue vexon_value_map_t

    /// A vector is tagged 16 + the type of its elements: ParamValues<std::vector<T>> with the T of
    /// the element type above.
    VEXON_TYPE_VECTOR_UINT8 = 17,
    VEXON_TYPE_VECTOR_UINT16 = 18,
    VEXON_TYPE_VECTOR_UINT32 = 19,
    VEXON_TYPE_VECTOR_UINT64 = 20,
    VEXON_TYPE_VECTOR_INT8 = 21,
    VEXON_TYPE_VECTOR_INT16 = 22,
    VEXON_TYPE_VECTOR_INT32 = 23,
    VEXON_TYPE_VECTOR_INT64 = 24,
    VEXON_TYPE_VECTOR_DOUBLE = 25,
    VEXON_TYPE_VECTOR_STRING = 26,
    VEXON_TYPE_VECTOR_BOOLEAN = 27,
    VEXON_TYPE_VECTOR_ENUM = 28,
    VEXON_TYPE_VECTOR_BLOB = 29,
    VEXON_TYPE_VECTOR_STRUCT = 30,  ///< ParamValues<std::vector<vexon_type_map_t>>, in value_queue
                                    /// ParamValues<std::vector<vexon_value_map_t>>
};

/// Common base of all decoded values. It has no virtual functions: the type tag beside a value says
/// to which ParamValues<T> it is to be cast with std::static_pointer_cast.
class ValuesInterface {};

/// One decoded value.
template <class T>
class ParamValues : public ValuesInterface {
  public:
    /// Holds the value.
    explicit ParamValues(T decoded) : value(std::move(decoded)) {}

    T value;  ///< the value
};

/// Arguments or struct members by key.
typedef std::map<int, std::shared_ptr<ValuesInterface>> vexon_value_map_t;

/// The same, each with its type.
typedef std::map<int, std::pair<vexon_data_type_t, std::shared_ptr<ValuesInterface>>>
    vexon_type_map_t;

/// One call of a function of a service.
///
/// The key of an argument is its "id", except for a struct argument, whose key is its position
/// among the arguments, counted from 0. An argument of a type that the library does not know is
/// left out. Both queues are null when the call has no argument.
///
/// The record is copied freely, the queues are not: all copies point to the same two maps, and the
/// library releases these when the exec callback returns. A value outlives them if the service
/// keeps its shared_ptr.
struct vexon_func_call_info_t {
    std::string func_name;           ///< name of the function
    std::int32_t num_of_args;        ///< how many arguments the Manager sent
    vexon_value_map_t* value_queue;  ///< the arguments, null if there is none
    vexon_type_map_t* type_queue;    ///< the same with their types, null if there is none
};

/// One task and its reply. The library fills the three ids, the exec callback the rest. It belongs
/// to the library and is freed when the reply has been sent.
///
/// Nothing is escaped on the way out: opcode and name must not hold a double quote or a backslash,
/// and func must be valid JSON member text, such as "\"out\":5".
struct _vexon_call_info_t {
    std::uint32_t session_id;  ///< session of the call
    std::int32_t transac_id;   ///< number of the call; -1: answered by {"req_type":"", "Result":..}
    std::uint32_t reserved;    ///< not used
    std::uint32_t subsys_id;   ///< subsystem of the service that is called
    std::string opcode;        ///< for the reply: the service's opcode as text, such as "0x1a"
    std::string name;          ///< for the reply: the function's name
    std::string func;  ///< members of the reply's "func" object; exactly "-1": none, and status -1
    std::int32_t status;        ///< for the reply: 0 on success, by convention
    std::int32_t return_value;  ///< for the reply: what the function returned
};

/// Runs one task. Fills `call`; its own result is ignored. Runs at the same time as other tasks,
/// without any lock of the library held, on a thread that runs nothing else meanwhile. That thread
/// ends with the task unless the property persist.vendor.vexon.clientlib.idle_workers lets threads
/// stay for a next one, which then finds what this one has left there: thread_local objects, say.
typedef int (*vexon_exec_callback_t)(_vexon_call_info_t* call, vexon_func_call_info_t args);

// ---------------------------------------------------------------------------------------------
// Life of a service process

extern "C" {

/// Connects to the Manager, starts the receive thread and asks for a service id.
///
/// Returns the service id (not negative), at once and without asking again when the process has one
/// already, even if nobody receives any more; after a vexa_svc_deinit() of another thread, which it
/// waits for. Returns -1 when the Manager cannot be reached, the request cannot be sent or the
/// Manager goes away before it has answered, and, where there is no id, in a state callback; the
/// Manager's negative answer when it refuses, and an answer below -1 at once until it has been
/// given back with vexa_svc_deinit(). Blocks for 20 s at most while the Manager's queue of
/// connections is full, and without time limit while a connected Manager does not answer: then
/// disconnect_from_manager(), called on another thread, has it return -1 (vexa_svc_deinit() needs
/// an id, which there is not yet). Throws std::system_error ("thread constructor failed") when no
/// thread can be started; the call may then be repeated.
///
/// The receive thread inherits the signals that the calling thread blocks. A signal whose handler
/// it runs costs 500 ms, in which nothing is received, unless the handler was installed with
/// SA_RESTART: install handlers so, or block signals while calling this.
VEXON_API int vexa_svc_init();

/// Registers the service `opcode` of this process and waits for the Manager's verdict.
///
/// `api_def` is the API definition: optionally the seven bytes 0x01 "VEXON" 0x01, then a version
/// byte of value 2, then NUL-terminated JSON text. `token` authenticates the service; it is sent
/// without escaping. Both stay the caller's and are not kept.
///
/// Returns 0 when the service is registered; -1 when the definition is of another version or does
/// not parse, the request cannot be sent, the Manager refuses or the connection ends before it has
/// answered (by vexa_svc_deinit() of another thread, too; nothing is registered then); -2 when
/// `api_def` or `token` is null, `service_id` is not the one of this process or the definition is
/// for another opcode; -3 before vexa_svc_init(). Blocks without time limit while the Manager does
/// not answer. A second registration of an opcode while the first waits, or after a request that
/// could not be sent, is not answered before the connection ends: de-initialise first.
VEXON_API int _vexa_svc_register_auth(std::uint32_t service_id, std::uint32_t opcode,
                                      const std::uint8_t* api_def, const char* token);

/// Registers nothing, logs that it is deprecated and returns -1.
VEXON_API int _vexa_svc_register(std::uint32_t service_id, std::uint32_t opcode,
                                 const std::uint8_t* api_def);

/// Declares a registered service ready and waits for the Manager's verdict.
///
/// Without a `state_callback` every session is refused, and without an `exec_callback` every task
/// is; a log line says so here. `user_data` is handed to the former, stays the caller's and is not
/// used any more when vexa_svc_deinit() has returned. `exec_callback` runs the tasks; those that
/// run then go on.
///
/// Returns 0 when the service is ready; -1 when the request cannot be sent, the Manager refuses or
/// the connection ends before it has answered (by vexa_svc_deinit() of another thread, too; the
/// callbacks are forgotten then); -2 when `service_id` is not the one of this process;
/// -3 before vexa_svc_init(). Blocks without time limit while the Manager does not answer.
/// Declaring an opcode again that is ready, or whose request could not be sent, is not answered
/// before the connection ends: de-initialise first.
VEXON_API int _vexa_svc_ready(std::uint32_t service_id, std::uint32_t opcode,
                              vexa_state_callback_t state_callback, void* user_data,
                              vexon_exec_callback_t exec_callback);

/// Takes leave of the Manager, closes the connection, whatever state it is in, and forgets all
/// services and callbacks. vexa_svc_init() may follow. Sessions stay, and meet the next Manager:
/// see terminate_sessions().
///
/// Returns 0 when done; -1 from inside a notice of a change (see vexa_state_callback_t); -2 when
/// `service_id` is not the one of this process; -3 before vexa_svc_init() or when another thread is
/// doing the same, after that has finished (in a state callback, which that waits for, at once).
/// Waits for a state callback that runs, unless called in it, and a fifth of a second at most for a
/// Manager that does not read: sends that wait for it fail then. Registrations and declarations
/// that wait in another thread return -1. Tasks that run are not waited for: their replies are
/// lost, with a log line.
VEXON_API int vexa_svc_deinit(std::uint32_t service_id);

/// Has `callback` told, with `user_data`, when nobody receives any more; a null one is nobody. This
/// is how a process learns that it is out of service, whatever the cause was (see docs/services.md
/// for how it gets back). Costs nothing otherwise: nothing is sent and nothing logged.
///
/// The callback is called once for each receive thread that vexa_svc_init() has started, as the
/// last act of that thread, without locks held. Everything is allowed in it but to wait for the
/// Manager or for a thread that does (see vexa_state_callback_t). It must not let an exception out.
///
/// Replaces the callback that was set before, and returns when no call of that one goes on any more
/// (called from inside it, does not wait for itself; called from a state callback, does not wait at
/// all). Whoever sets the callback anew between vexa_svc_deinit() and vexa_svc_init() can tell the
/// ends of the two apart: later calls for the former say VEXA_RECEIVE_END_DISCONNECTED or _CLOSED.
/// `user_data` stays the caller's. Throws std::bad_alloc when memory is missing.
VEXON_API void vexa_svc_on_receive_end(vexa_receive_end_callback_t callback, void* user_data);

/// Logs `text` and, on the dedicated socket with markers enabled, sends it to the Manager as it is.
///
/// Returns 0 or -1 as the send did, and where nothing is sent the result of the log call. -1 for a
/// null pointer. May block while the Manager does not read.
VEXON_API int vexa_log_marker(const char* text);

/// Writes `text` to the log, as the library writes its own lines, if the level of the log, which is
/// 0 before vexa_svc_init(), has reached `level`: 0 for what is always written, 1 for failures, 2
/// for anomalies, 3 for contents of messages, 4 for progress. A null `text` is nothing. Sends
/// nothing. Any thread, also in callbacks and while the process exits.
VEXON_API void vexa_log(int level, const char* text);

}  // extern "C"

// ---------------------------------------------------------------------------------------------
// Services that the process offers

/// Adds a service; returns true. Registration does this for all subsystems of a definition.
VEXON_API bool supported_services_add(unsigned int opcode, unsigned int subsystem);

/// Returns whether a session may be started for the service.
VEXON_API bool is_service_supported(unsigned int opcode, unsigned int subsystem);

/// Forgets all services.
VEXON_API void supported_services_clear();

// ---------------------------------------------------------------------------------------------
// Messages and the connection, for services that need more than the callbacks

/// Ends all sessions: tells the service of the lowest opcode VEXA_STATUS_TERMINATED and each
/// service of a session VEXA_STATUS_SESSION_END. The library does so itself when the Manager closes
/// the connection, but in no other case: sessions outlive vexa_svc_deinit() and meet the next
/// Manager, which knows nothing of them. A service that starts over calls this once nobody receives
/// any more, before vexa_svc_deinit().
///
/// Returns 0 if a service has ended or none is ready (then nothing is done), else -1. Calls the
/// state callbacks on the calling thread, which may be any, but not from inside a state callback.
VEXON_API int terminate_sessions();

/// Sends the reply that `info` describes. The library does so itself after each exec callback.
/// `info` is only read. `req_type` is used for a transaction id of -1 alone, where the message is
/// {"req_type":"<req_type>", "Result":"<func>"}. A failure to send is logged. Blocks while the
/// Manager does not read, without time limit.
VEXON_API void vexa_send_response(_vexon_call_info_t* info, std::string req_type);

/// Sends `msg`, a NUL-terminated text, as one packet. Returns 0, or -1 with a log line when it
/// cannot be sent (not connected, or larger than a packet can be). Blocks while the Manager does
/// not read, without time limit, but not beyond the end of the connection. A signal does not
/// interrupt it.
VEXON_API int vexa_send_to_manager_raw(const char* msg);

/// Opens the connection. Returns 0, or -1 with a log line; waits 20 s at most while the Manager's
/// queue of connections is full. To be called only while there is none; vexa_svc_init() does so
/// itself.
VEXON_API int connect_to_manager();

/// Says "EXIT" to the Manager and closes the connection, which ends the receive thread; whoever
/// waits for an answer or in a send returns. Waits a tenth of a second at most for a Manager that
/// does not read. Returns 0, or -1 if there was none. Does not forget the service id: that is
/// vexa_svc_deinit()'s.
VEXON_API int disconnect_from_manager();

/// Opens the connection again, trying every 50 ms for 20 s. Returns 0, or -1 after that time. To be
/// called only while there is none, and not from a state callback: nothing would be received so
/// long.
VEXON_API int reconnect_to_manager();

// ---------------------------------------------------------------------------------------------
// Questions to the Manager. Each blocks until the answer has come, for 3 seconds at most after the
// request was sent. From a state callback they send the request and return at once what they return
// without an answer. They throw std::system_error ("condition_variable timed_wait failed") if the
// system cannot wait.

/// Asks which of `permissions` are granted in a session. The names are sent without escaping.
///
/// Returns one element for each permission, in their order; a single false if the Manager refuses
/// to tell; nothing if no answer has come. If the request cannot be sent, returns nothing, but a
/// single false for an empty list of permissions.
VEXON_API std::vector<bool> vexa_permission_query(unsigned int session_id,
                                                  std::vector<std::string> permissions);

/// Asks for pieces of information by name. The names are sent without escaping.
///
/// Returns one text for each name, in their order, for parse_result_of_query_info(); the single
/// text "ERROR:Empty requested info" for an empty list; nothing if no answer has come. If the
/// request cannot be sent, returns as many empty texts as there are names, modulo 256.
VEXON_API std::vector<std::string> vexa_info_query(unsigned int session_id,
                                                   std::vector<std::string> names);

/// Asks for pieces of information as vexa_info_query() does, and to be told of changes from then
/// on.
VEXON_API std::vector<std::string> vexa_info_monitor(unsigned int session_id,
                                                     std::vector<std::string> names);

/// What became of a query.
enum vexa_query_outcome_t : std::int32_t {
    VEXA_QUERY_ANSWERED = 0,   ///< the Manager has answered
    VEXA_QUERY_NO_ANSWER = 1,  ///< no answer came within 3 s, or the query was in a state callback
    VEXA_QUERY_NOT_SENT = 2,   ///< it could not be sent, or there was nothing to ask for
};

/// Returns what became of the latest of the three queries above that the calling thread has made,
/// VEXA_QUERY_NOT_SENT before the first and after one that threw.
VEXON_API vexa_query_outcome_t vexa_query_outcome();

/// Takes apart one text of an answer, "SUCCESS:value" or "ERROR:value". Returns 0 for the former,
/// -1 for the latter, with the value in `out`. Returns -1 with "Empty result" or "Invalid result"
/// in `out` for an empty text and for one that begins otherwise.
VEXON_API int parse_result_of_query_info(std::string text, std::string& out);

/// Returns the texts in double quotes with commas between them, nothing escaped.
VEXON_API std::string vector_to_string_with_quotes(std::vector<std::string> texts);

// ---------------------------------------------------------------------------------------------
// Definitions

/// Compares an author's `definition` with the one that was `made` from the functions of a service,
/// both JSON text in the form of docs/protocol.md: opcode, name, subsystems, functions, arguments
/// with all members of functions that `made` has arguments of, results if `definition` has any.
///
/// Returns a line for each mismatch that names the place; nothing if they agree. Any thread.
VEXON_API std::vector<std::string> vexa_definition_mismatches(const std::string& definition,
                                                              const std::string& made);

// ---------------------------------------------------------------------------------------------
// Conversions of texts. None throws. Each returns 0; on failure it returns -1 and leaves `out`
// alone, the numeric ones with a log line.

/// Decimal, as std::stoi converts: leading white space and a sign are allowed, and what follows the
/// digits is ignored.
VEXON_API int stoi_validation(std::string text, int* out);

/// Decimal, as std::stoull converts, of which the low 32 bits are kept.
VEXON_API int stoul_validation(std::string text, unsigned int* out);

/// Decimal, as std::stoull converts.
VEXON_API int stoull_validation(std::string text, std::uint64_t* out);

/// Writes "true" or "false".
VEXON_API void vexon_bool_to_string(bool value, std::string* out);

/// Takes exactly "true" and "false".
VEXON_API int vexon_string_to_bool(std::string text, bool* out);

// ---------------------------------------------------------------------------------------------
// Exported objects. Services only read them.

extern "C" {

/// Version of the API definitions that _vexa_svc_register_auth() takes.
VEXON_API extern const std::uint8_t VEXA_JSON_DEF_VER_ARR;

/// Characters that delimit lists. For services; the library does not use it.
VEXON_API extern const char deliminator[4];

/// Where vexa_svc_init() waits.
VEXON_API extern std::condition_variable init_cv;

/// What it waits for.
VEXON_API extern bool response_for_init;

}  // extern "C"
