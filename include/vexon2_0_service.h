// SPDX-License-Identifier: Apache-2.0
/// \file
/// A service made of typed functions, which stays in service. Header only; link with -lvexon2_0.
///
///     #include <vexon2_0_service.h>
///
///     int main() {
///         vexon::Service service(0x2b, "doubler", "my token");
///         service.function("double", {"number"}, [](int number) {
///             return vexon::Reply().add("out", 2L * number);
///         });
///         return service.run();  // until SIGINT or SIGTERM
///     }
///
/// Functions. Anything that can be called and whose parameters are known: a lambda, a function, an
/// object with one operator(). The first parameter may be a vexon::Call; the others are the
/// arguments in their order, by value or const reference, of the types in vexon2_0_typed.h. The
/// definition that the Manager gets is made from them. What a function may return:
///
///     vexon::Reply                       any members; the definition says nothing of results
///     void                               no members
///     a struct with kMembers             its members; std::optional of it: no members without it
///     vexon::Result<any of the above>    that, or a vexon::Error
///
/// Errors. A reply with an error has {"error":TEXT} as its "func", -1 as "status" and the value of
/// the error as "return". Missing and wrong arguments (kBadArgument, "lamps[1].on is missing") and
/// unknown functions (kNoFunction) are answered without the author. A function throws or returns
/// vexon::Error; of any other exception the peer learns "internal error" (kInternal) and the log
/// what(). A build with -fno-exceptions has no throw and no Call::require_permission(): its
/// functions return a Result and ask Call::check_permission(). A process should not mix the two
/// kinds.
///
/// A call with the transaction -1, whose reply has no members, gets them as one text.
///
/// Staying in service. Whatever happens (no Manager yet, a refusal, a Manager that does not answer,
/// restarts, hangs up or stays away), the service tries again: after Pace::first, then after twice
/// as long each time up to Pace::longest, give or take a quarter by chance; the pause is
/// Pace::first again after a time of Pace::longest in service. Each time everything is registered
/// anew, and sessions of the former connection have ended. The log has a line when the reason
/// changes.
///
/// Threads. Service and Api are built and started by one thread at a time. Functions run each on a
/// thread of their own, several at once, and may block; on_state() says where its hook runs. Of one
/// process one Service at a time can be started, with up to 64 different opcodes in the life of the
/// process. Threads inherit the signals that the caller of start() blocks and its name, see
/// vexa_svc_init(). Without exceptions, a thread that cannot be started ends the process.

#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "vexon2_0.h"
#include "vexon2_0_typed.h"

namespace vexon {

class Api;
class Service;

/// The "return" of a reply: those that are given without the author.
enum ReturnValue : std::int32_t {
    kDone = 0,          ///< the function has returned
    kNoFunction = -1,   ///< there is no such function
    kBadArgument = -2,  ///< an argument is missing or wrong
    kDenied = -3,       ///< a permission is missing or could not be asked for
    kInternal = -4,     ///< an exception that was no Error
};

/// What a function answers instead of a result.
class Error : public std::exception {
  public:
    /// `value` becomes the "return" of the reply, `text` is for whoever has called.
    Error(std::int32_t value, std::string text) : value_(value), text_(std::move(text)) {}

    /// Returns the value.
    std::int32_t value() const { return value_; }
    /// Returns the text.
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    std::int32_t value_;
    std::string text_;
};

/// A result or an error, both of which convert to it.
template <class T = Reply>
class Result {
  public:
    /// Holds the result; `return_value` becomes the "return" of the reply.
    Result(T value, std::int32_t return_value = kDone)
        : content_(std::move(value)), return_value_(return_value) {}
    /// Holds the error.
    Result(Error error)
        : content_(std::move(error)), return_value_(std::get<1>(content_).value()) {}

    /// Returns the result, or null if there is an error.
    const T* value() const { return std::get_if<0>(&content_); }
    /// Returns the error, or null if there is a result.
    const Error* error() const { return std::get_if<1>(&content_); }
    /// Returns the "return" of the reply.
    std::int32_t return_value() const { return return_value_; }

  private:
    std::variant<T, Error> content_;
    std::int32_t return_value_;
};

/// The same for a function without a result: empty, or an error.
template <>
class Result<void> {
  public:
    /// Holds no error.
    Result() = default;
    /// Holds the error.
    Result(Error error) : error_(std::move(error)) {}

    /// Returns the error, or null if there is none.
    const Error* error() const { return error_ ? &*error_ : nullptr; }

  private:
    std::optional<Error> error_;
};

/// What has become of a question for a permission.
enum class Permission { kGranted, kDenied, kNoAnswer, kNotSent };

/// A piece of information.
struct Info {
    /// What has become of the question.
    enum class Outcome { kValue, kError, kNoAnswer, kNotSent };

    Outcome outcome = Outcome::kNotSent;  ///< what has become of the question
    std::string text;                     ///< the value or the Manager's error, else empty

    /// Returns whether `text` is the value.
    explicit operator bool() const { return outcome == Outcome::kValue; }
};

/// Asks whether a permission is granted in a session; waits 3 s at most, in a hook of a session or
/// a change not at all (kNoAnswer). Any thread.
Permission ask_permission(std::uint32_t session, std::string_view name);

/// Asks for a piece of information in the same way.
Info ask_info(std::uint32_t session, std::string_view name);

/// Asks for it and to be told of its changes from then on.
Info monitor_info(std::uint32_t session, std::string_view name);

/// The call that a function answers. It lasts as long as the function runs.
class Call {
  public:
    /// \cond made by the service only
    Call(const Api& api, const _vexon_call_info_t& record, const vexon_func_call_info_t& arguments)
        : api_(api), record_(record), arguments_(arguments) {}
    /// \endcond

    std::uint32_t session() const { return record_.session_id; }     ///< Returns the session.
    std::uint32_t subsystem() const { return record_.subsys_id; }    ///< Returns the subsystem.
    std::int32_t transaction() const { return record_.transac_id; }  ///< Returns its number.
    const std::string& function() const { return arguments_.func_name; }  ///< Returns its name.
    std::uint32_t opcode() const;  ///< Returns the opcode of the service that is called.
    bool is_stopping() const;      ///< Returns whether the service waits for functions to return.

    /// Returns the arguments as the library has decoded them, for vexon::get() and the like.
    const vexon_func_call_info_t& arguments() const { return arguments_; }

    /// As ask_permission(), in the session of the call.
    Permission permission(std::string_view name) const { return ask_permission(session(), name); }
    /// As ask_info(), in the session of the call.
    Info info(std::string_view name) const { return ask_info(session(), name); }
    /// As monitor_info(), in the session of the call.
    Info monitor(std::string_view name) const { return monitor_info(session(), name); }

    /// Returns the error to answer (kDenied) unless the permission is granted.
    std::optional<Error> check_permission(std::string_view name) const;
#if defined(__cpp_exceptions)
    /// Throws the error to answer unless the permission is granted.
    void require_permission(std::string_view name) const {
        if (auto error = check_permission(name)) throw *std::move(error);
    }
#endif

  private:
    const Api& api_;
    const _vexon_call_info_t& record_;
    const vexon_func_call_info_t& arguments_;
};

/// What a hook is told of. Fields that a kind does not speak of are empty or 0.
struct Event {
    /// What has happened.
    enum class Kind {
        kInService,     ///< all services are ready
        kOutOfService,  ///< the connection is lost or given up; `value` says why
        kSessionStart,  ///< may the session start? false refuses it
        kSessionReady,  ///< tasks of the session may come
        kSessionEnd,    ///< the session has ended
        kPermission,    ///< `name` was granted or withdrawn
        kState,         ///< a state of the system changed: `name`, `value`
        kSetting,       ///< a setting of the system changed: `name`, `value`
    };

    Kind kind = Kind::kInService;  ///< what has happened
    std::uint32_t opcode = 0;      ///< sessions: the service
    std::uint32_t subsystem = 0;   ///< sessions: its subsystem
    std::uint32_t session = 0;     ///< the session, 0 if none is concerned
    std::string name;              ///< of the permission, the state or the setting
    std::string value;             ///< of the state or the setting
    std::string package;           ///< the package that a change concerns, if one was named
    bool granted = false;          ///< whether the permission is granted now
};

/// How a service tries to get into service.
struct Pace {
    std::chrono::milliseconds first{100};      ///< the pause after a first failure
    std::chrono::milliseconds longest{5000};   ///< no pause becomes longer, but for the chance
    std::chrono::milliseconds answer{30'000};  ///< how long an attempt may take, 0 for ever
};

namespace internal {

// What goes into the record of a call.
struct Answer {
    std::int32_t status;
    std::int32_t return_value;
    std::string func;
};

inline Answer answer_of(const Error& error) {
    return {-1, error.value(), Object().add("error", error.what()).text()};
}

inline Answer answer_of(Object reply) {
    return {0, kDone, std::move(reply).text()};
}

template <class T>
Answer answer_of(const T& result) {
    static_assert(kHasMembers<T>,
                  "a function returns vexon::Reply, void, a struct that has kMembers = "
                  "vexon::member_list(...), a std::optional of that, or a vexon::Result of these");
    return answer_of(write_struct(result));
}

template <class T>
Answer answer_of(const std::optional<T>& result) {
    static_assert(kHasMembers<T>, "an optional result is that of a struct that has kMembers");
    return result ? answer_of(*result) : answer_of(Object());
}

template <class T>
Answer answer_of(const Result<T>& result) {
    if (result.error() != nullptr) return answer_of(*result.error());
    Answer answer = answer_of(T(*result.value()));
    answer.return_value = result.return_value();
    return answer;
}

inline Answer answer_of(const Result<void>& result) {
    return result.error() == nullptr ? answer_of(Object()) : answer_of(*result.error());
}

// ---- How a function looks

template <class T>
struct Parameter {
    static_assert(!std::is_rvalue_reference_v<T> && (!std::is_lvalue_reference_v<T> ||
                                                     std::is_const_v<std::remove_reference_t<T>>),
                  "a function takes its arguments by value or by const reference");
    using Type = std::decay_t<T>;
};

// Whether each struct that is an argument stands where its key says, its position among those that
// are sent, even if optional ones are not.
template <class... T>
constexpr bool structs_have_their_place() {
    bool may_miss = false;
    bool have = true;
    [[maybe_unused]] const auto look_at = [&](bool is_struct, bool is_optional) {
        have = have && !(is_struct && may_miss);
        may_miss = may_miss || is_optional;
    };
    (..., look_at(kHasMembers<typename Required<T>::Type>, kIsOptional<T>));
    return have;
}

template <class R, class... P>
struct Form {
    static_assert(structs_have_their_place<typename Parameter<P>::Type...>(),
                  "a struct cannot be an argument behind an optional one: put it first");
    using Returned = std::decay_t<R>;
    using Arguments = std::tuple<Argument<typename Parameter<P>::Type>...>;
    static constexpr bool kTakesCall = false;
};
template <class R, class... P>
struct Form<R, const Call&, P...> : Form<R, P...> {
    static constexpr bool kTakesCall = true;
};
template <class R, class... P>
struct Form<R, Call, P...> : Form<R, const Call&, P...> {};

template <class F, class = void>
struct FormOf : Form<void> {
    static_assert(kNever<F>,
                  "a function must be something with one signature: a function, a lambda without "
                  "auto parameters or an object with one operator()");
};
template <class R, class... P>
struct FormOf<R (*)(P...)> : Form<R, P...> {};
template <class R, class... P>
struct FormOf<R (*)(P...) noexcept> : Form<R, P...> {};
template <class F, class R, class... P>
struct FormOf<R (F::*)(P...)> : Form<R, P...> {};
template <class F, class R, class... P>
struct FormOf<R (F::*)(P...) const> : Form<R, P...> {};
template <class F, class R, class... P>
struct FormOf<R (F::*)(P...) noexcept> : Form<R, P...> {};
template <class F, class R, class... P>
struct FormOf<R (F::*)(P...) const noexcept> : Form<R, P...> {};
template <class F>
struct FormOf<F, std::void_t<decltype(&F::operator())>> : FormOf<decltype(&F::operator())> {};

template <class F>
inline constexpr std::size_t kArity = std::tuple_size_v<typename FormOf<F>::Arguments>;

// What answers the calls of one name.
class Handler {
  public:
    virtual ~Handler() = default;
    virtual Answer answer(const Call& call) = 0;
};

template <class F>
class TypedHandler : public Handler {
  public:
    TypedHandler(F run, std::array<std::string, kArity<F>> names)
        : run_(std::move(run)), names_(std::move(names)) {}

    Answer answer(const Call& call) override {
        return answer(call, std::make_index_sequence<kArity<F>>());
    }

  private:
    template <std::size_t... kAt>
    Answer answer(const Call& call, std::index_sequence<kAt...>) {
        typename FormOf<F>::Arguments arguments;
        std::string fault;
        const bool decoded =
            (... && decode(call, static_cast<int>(kAt), &std::get<kAt>(arguments), &fault));
        if (!decoded) return answer_of(Error(kBadArgument, std::move(fault)));
        return invoke(call, std::get<kAt>(arguments).value()...);
    }

    template <class T>
    bool decode(const Call& call, int at, Argument<T>* argument, std::string* fault) {
        if (argument->decode(call.arguments(), at, fault)) return true;
        *fault = names_[static_cast<std::size_t>(at)] + *fault;
        return false;
    }

    template <class... T>
    Answer invoke(const Call& call, const T&... arguments) {
        if constexpr (FormOf<F>::kTakesCall) {
            return finish([&] { return run_(call, arguments...); });
        } else {
            return finish([&] { return run_(arguments...); });
        }
    }

    template <class Run>
    static Answer finish(Run call) {
        if constexpr (std::is_void_v<typename FormOf<F>::Returned>) {
            call();
            return answer_of(Object());
        } else {
            return answer_of(call());
        }
    }

    F run_;
    const std::array<std::string, kArity<F>> names_;
};

// ---- Describing functions

template <class T>
Object describe_result(const char* name) {
    Object description;
    description.add("name", name);
    describe_type<T>(&description);
    return description;
}

template <class T>
struct Returns {  // of a Reply nothing is known
    static void describe(Object*) {}
};
template <>
struct Returns<void> {
    static void describe(Object* function) { function->add("results", std::vector<Object>()); }
};
template <class T>
struct Returns<Result<T>> : Returns<T> {};

// Members are optional if the struct is.
template <class T, bool kMayMiss>
void describe_results(Object* function) {
    const auto describe_one = [](const auto& named) {
        using Member = std::decay_t<decltype(std::declval<T&>().*named.member)>;
        using Required = typename Required<Member>::Type;
        constexpr bool kOptional = kMayMiss || kIsOptional<Member>;
        return describe_result<std::conditional_t<kOptional, std::optional<Required>, Required>>(
            named.name);
    };
    function->add("results", std::apply(
                                 [&](const auto&... named) {
                                     return std::vector<Object>{describe_one(named)...};
                                 },
                                 T::kMembers));
}

template <class T>
struct Returns<std::optional<T>> {
    static void describe(Object* function) { describe_results<T, true>(function); }
};

template <class T>
void describe_returned(Object* function) {
    if constexpr (kHasMembers<T>) {
        describe_results<T, false>(function);
    } else {
        Returns<T>::describe(function);
    }
}

template <class... T, std::size_t... kAt>
std::vector<Object> describe_arguments(const std::string* names, std::tuple<Argument<T>...>*,
                                       std::index_sequence<kAt...>) {
    return {describe_item<T>(kAt, names[kAt])...};
}

// Returns the names of the members of each struct that is an argument or the result of F.
template <class... T>
std::vector<std::vector<const char*>> names_in(std::tuple<Argument<T>...>*) {
    std::vector<std::vector<const char*>> lists;
    (..., add_member_names<T>(&lists));
    return lists;
}

template <class F>
std::vector<std::vector<const char*>> member_names() {
    auto lists = names_in(static_cast<typename FormOf<F>::Arguments*>(nullptr));
    add_member_names<typename FormOf<F>::Returned>(&lists);
    return lists;
}

// A function that reads its arguments by itself declares none: they are what an author's own
// definition says.
template <class F>
Object describe_function(const std::string& name, const std::array<std::string, kArity<F>>& names) {
    Object description;
    description.add("name", name);
    if constexpr (kArity < F >> 0 || !FormOf<F>::kTakesCall) {
        using Arguments = typename FormOf<F>::Arguments;
        description.add("args", describe_arguments(names.data(), static_cast<Arguments*>(nullptr),
                                                   std::make_index_sequence<kArity<F>>()));
    }
    describe_returned<typename FormOf<F>::Returned>(&description);
    return description;
}

// ---- Texts

// Names go into packets as they are.
inline bool is_plain(std::string_view name) {
    for (std::size_t at = 0; at < name.size();) {
        const std::size_t length = verbatim_length(name.substr(at));
        if (length == 0) return false;
        at += length;
    }
    return !name.empty();
}

// Returns the text as it stands between the quotes of a JSON string.
inline std::string escaped(std::string_view text) {
    std::string json;
    append_string(&json, text);
    return json.substr(1, json.size() - 2);
}

inline std::string hexadecimal(std::uint32_t number) {
    char digits[8];
    const auto written = std::to_chars(std::begin(digits), std::end(digits), number, 16);
    return std::string(digits, written.ptr);
}

// How long taking leave may wait for a Manager that does not read.
inline constexpr std::chrono::milliseconds kLeaveLimit{200};

inline constexpr int kAlways = 0;
inline constexpr int kFailure = 1;  // levels of vexa_log()
inline constexpr int kProgress = 4;

inline void log(int level, const std::string& text) {
    vexa_log(level, text.c_str());
}

}  // namespace internal

/// The functions of one opcode. Its references stay valid as long as the Service it belongs to.
class Api {
  public:
    Api(const Api&) = delete;
    Api& operator=(const Api&) = delete;

    /// Adds a function with the names of its arguments, such as {"ms"}. Everything is kept; `run`
    /// is called from several threads at once. What is wrong with the names start() tells. Returns
    /// this object. Not to be called while the service is started.
    template <std::size_t kCount, class F>
    Api& function(std::string name, const char* const (&names)[kCount], F run) {
        static_assert(internal::kArity<F> == kCount, "each argument needs a name, and only these");
        std::array<std::string, kCount> texts;
        std::copy(std::begin(names), std::end(names), texts.begin());
        add(std::move(name), std::move(run), std::move(texts));
        return *this;
    }
    /// The same for a function without arguments, or with a Call to read them from.
    template <class F>
    Api& function(std::string name, F run) {
        static_assert(internal::kArity<F> == 0, "the arguments need names: {\"first\", ...}");
        add(std::move(name), std::move(run), std::array<std::string, 0>());
        return *this;
    }

    /// Has the Manager get this JSON text as definition instead of what definition() made from the
    /// functions. start() fails if the two do not agree; of functions that take a Call and no
    /// arguments the text says what their arguments are. Returns this object.
    Api& definition(std::string text) {
        own_definition_ = std::move(text);
        return *this;
    }

    /// Returns the definition that the Manager gets.
    std::string definition() const {
        return own_definition_.empty() ? made_definition() : own_definition_;
    }

    /// Returns the opcode.
    std::uint32_t opcode() const { return opcode_; }

    /// \cond for the service and for calls
    bool is_stopping() const;

    // Answers a call, whatever becomes of it.
    internal::Answer answer(const _vexon_call_info_t& record,
                            const vexon_func_call_info_t& arguments) const {
        const auto found = handlers_.find(arguments.func_name);
        if (found == handlers_.end()) {
            return internal::answer_of(
                Error(kNoFunction, "there is no function \"" + arguments.func_name + '"'));
        }
        const Call call(*this, record, arguments);
#if defined(__cpp_exceptions)
        try {
            return found->second->answer(call);
        } catch (const Error& error) {
            return internal::answer_of(error);
        } catch (const std::exception& error) {
            log_broken(arguments.func_name, error.what());
        } catch (...) {
            log_broken(arguments.func_name, "an exception of an unknown type");
        }
        return internal::answer_of(Error(kInternal, "internal error"));
#else
        return found->second->answer(call);
#endif
    }
    /// \endcond

  private:
    friend class Service;

    Api(std::uint32_t opcode, std::string name, std::string_view token,
        std::vector<std::uint32_t> subsystems, Service* service)
        : opcode_(opcode),
          name_(std::move(name)),
          token_(internal::escaped(token)),
          subsystems_(std::move(subsystems)),
          service_(service) {
        expect_plain(name_);
        if (subsystems_.empty()) problems_.push_back(name_ + " has no subsystem");
    }

    void expect_plain(const std::string& name) {
        if (internal::is_plain(name)) return;
        problems_.push_back("the name \"" + name +
                            "\" is empty or holds a double quote, a backslash or a byte that is no "
                            "text");
    }

    template <class Names>
    void expect_names(const Names& names) {
        for (auto name = std::begin(names); name != std::end(names); ++name) {
            expect_plain(*name);
            if (std::count(std::begin(names), name, std::string(*name)) == 0) continue;
            problems_.push_back("there are two names \"" + std::string(*name) + "\" in one list");
        }
    }

    template <class F, std::size_t kCount>
    void add(std::string name, F run, std::array<std::string, kCount> names) {
        expect_plain(name);
        for (const auto& members : internal::member_names<F>()) expect_names(members);
        expect_names(names);
        functions_.push_back(internal::describe_function<F>(name, names));
        auto handler =
            std::make_unique<internal::TypedHandler<F>>(std::move(run), std::move(names));
        if (handlers_.emplace(name, std::move(handler)).second) return;
        problems_.push_back("there are two functions \"" + name + '"');
    }

    std::string made_definition() const {
        std::vector<Object> subsystems;
        for (const std::uint32_t id : subsystems_) subsystems.push_back(Object().add("id", id));
        const Object service = Object()
                                   .add("opcode", internal::hexadecimal(opcode_))
                                   .add("name", name_)
                                   .add("subsystems", subsystems)
                                   .add("functions", functions_);
        return '{' + Object().add("Vexon", service).text() + '}';
    }

    std::vector<std::string> problems() const {
        std::vector<std::string> problems = problems_;
        if (own_definition_.empty()) return problems;
        for (const std::string& mismatch :
             vexa_definition_mismatches(own_definition_, made_definition())) {
            problems.push_back(mismatch);
        }
        return problems;
    }

    static void log_broken(const std::string& function, const char* what) {
        internal::log(internal::kFailure, "Function " + function + " failed: " + what);
    }

    const std::uint32_t opcode_;
    const std::string name_;
    const std::string token_;
    const std::vector<std::uint32_t> subsystems_;
    Service* const service_;
    std::size_t slot_ = 0;           // while the service is started
    std::vector<Object> functions_;  // as the definition has them
    std::unordered_map<std::string, std::unique_ptr<internal::Handler>> handlers_;
    std::string own_definition_;
    std::vector<std::string> problems_;
};

namespace internal {

// ---- From the library's callbacks, which know no object, to a service

// One opcode, for good, so that a call that was under way when a service ended cannot get into one
// of another opcode.
struct Slot {
    std::mutex mutex;
    std::condition_variable left;
    const Api* api = nullptr;  // null while no service is started
    std::optional<std::uint32_t> opcode;
    int running = 0;  // calls that are in `api`
};

inline constexpr std::size_t kSlots = 64;

struct Slots {
    std::mutex mutex;  // before that of a slot
    const Service* started = nullptr;
    std::array<Slot, kSlots> slots;
};

// Never destroyed: calls may still come when the process exits.
inline Slots& slots() {
    static Slots& all = *new Slots;
    return all;
}

// How many calls the thread is in: they are not waited for by themselves.
inline thread_local int tCalls = 0;
// Whether it is in a hook.
inline thread_local bool tInHook = false;

class Visit {
  public:
    explicit Visit(Slot& slot) : slot_(slot) {
        const std::lock_guard lock(slot.mutex);
        api_ = slot.api;
        ++slot.running;
        ++tCalls;
    }
    ~Visit() {
        const std::lock_guard lock(slot_.mutex);
        --tCalls;
        --slot_.running;
        slot_.left.notify_all();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    const Api* api() const { return api_; }

  private:
    Slot& slot_;
    const Api* api_;
};

template <std::size_t kSlot>
int run_task(_vexon_call_info_t* call, vexon_func_call_info_t arguments) {
    const Visit visit(slots().slots[kSlot]);
    call->func = "-1";  // no result, unless what follows gives one
    if (visit.api() == nullptr) return 0;
    Answer answer = visit.api()->answer(*call, arguments);
    call->opcode = "0x" + hexadecimal(visit.api()->opcode());
    call->name = is_plain(arguments.func_name) ? std::move(arguments.func_name) : "unknown";
    // Without members the reply has room for one text only.
    call->func = call->transac_id == -1 ? escaped(answer.func) : std::move(answer.func);
    call->status = answer.status;
    call->return_value = answer.return_value;
    return 0;
}

template <std::size_t... kSlot>
constexpr std::array<vexon_exec_callback_t, kSlots> make_exec_callbacks(
    std::index_sequence<kSlot...>) {
    return {run_task<kSlot>...};
}
inline constexpr auto kExecCallbacks = make_exec_callbacks(std::make_index_sequence<kSlots>());

// Returns the place of an opcode, kSlots if there is none left.
inline std::size_t slot_of(Slots* all, std::uint32_t opcode) {
    std::size_t at = 0;
    while (at < kSlots && all->slots[at].opcode.value_or(opcode) != opcode) ++at;
    if (at < kSlots) all->slots[at].opcode = opcode;
    return at;
}

// Has SIGINT and SIGTERM wake run(), also for a thread that blocks them, and remembers that they
// came. A signal that is ignored stays so.
class EndingSignals {
  public:
    EndingSignals() {
        has_come_flag() = false;
        struct sigaction action {};
        action.sa_handler = [](int) {
            has_come_flag() = true;
            wake();
        };
        action.sa_flags = SA_RESTART;
        sigset_t all;
        sigemptyset(&all);
        for (std::size_t i = 0; i < std::size(kSignals); ++i) {
            sigaddset(&all, kSignals[i]);
            sigaction(kSignals[i], nullptr, &former_[i]);
            if (former_[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
        }
        pthread_sigmask(SIG_UNBLOCK, &all, &former_mask_);
    }
    ~EndingSignals() {
        pthread_sigmask(SIG_SETMASK, &former_mask_, nullptr);
        for (std::size_t i = 0; i < std::size(kSignals); ++i) {
            sigaction(kSignals[i], &former_[i], nullptr);
        }
    }
    EndingSignals(const EndingSignals&) = delete;
    EndingSignals& operator=(const EndingSignals&) = delete;

    bool has_come() const { return has_come_flag(); }

    // Returns when woken, perhaps before it began to wait.
    void wait() {
        while (sem_wait(&woken()) != 0) {
        }
    }

    // May be called from anywhere.
    static void wake() {
        const int error = errno;
        sem_post(&woken());
        errno = error;
    }

  private:
    static std::atomic<bool>& has_come_flag() {
        static std::atomic<bool> flag{false};
        return flag;
    }

    // Never destroyed: signals come until the process has ended.
    static sem_t& woken() {
        static sem_t& semaphore = *[] {
            auto* const made = new sem_t;
            sem_init(made, 0, 0);
            return made;
        }();
        return semaphore;
    }

    static constexpr int kSignals[] = {SIGINT, SIGTERM};
    struct sigaction former_[2]{};
    sigset_t former_mask_{};
};

inline constexpr const char* kReceiveEnds[] = {"the Manager closed the connection",
                                               "the Manager went away",
                                               "there was no memory to receive",
                                               "the Manager took the service id back",
                                               "the Manager was restarted",
                                               "the Manager closed the connection and stayed away",
                                               "the connection was closed by this process"};

}  // namespace internal

/// A service process: one service, more with also(), and what keeps them in service.
class Service : public Api {
  public:
    /// Makes a service `opcode` with a name, the token that authenticates it and its subsystems.
    /// Does nothing yet.
    Service(std::uint32_t opcode, std::string name, std::string_view token,
            std::vector<std::uint32_t> subsystems = {1})
        : Api(opcode, std::move(name), token, std::move(subsystems), this) {}

    /// stop(); where a function calls exit(), without waiting for functions.
    ~Service() {
        stop();
        if (internal::tCalls == 0) return;
        const std::lock_guard lock(lifecycle_);
        if (is_started_) pthread_join(supervisor_, nullptr);
        vacate();
    }

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Adds a service of another opcode, which belongs to this object. Not while it is started.
    Api& also(std::uint32_t opcode, std::string name, std::string_view token,
              std::vector<std::uint32_t> subsystems = {1}) {
        others_.emplace_back(new Api(opcode, std::move(name), token, std::move(subsystems), this));
        return *others_.back();
    }

    /// Has `hook` told what happens: a copyable function of a const vexon::Event& that returns bool
    /// or nothing. The result counts for kSessionStart; an exception is logged and refuses the
    /// session.
    ///
    /// kInService and kOutOfService are told on a thread of this object, where the hook may ask the
    /// Manager; the others on the receive thread, possibly at the same time: while the hook runs
    /// there nothing else is handled and no answer comes, so it has to be short. A session may
    /// start before kInService and end after kOutOfService. The hook may call request_stop() of
    /// this object and nothing else, nor exit(). What it refers to has to outlive stop(), which it
    /// is told of: make the Service last. Not while it is started.
    template <class Hook>
    void on_state(Hook hook) {
        static_assert(
            std::is_invocable_v<Hook&, const Event&> && std::is_copy_constructible_v<Hook>,
            "a hook is copyable and takes a const vexon::Event&");
        hook_ = [hook = std::move(hook)](const Event& event) mutable {
            if constexpr (std::is_void_v<decltype(hook(event))>) {
                hook(event);
                return true;
            } else {
                return static_cast<bool>(hook(event));
            }
        };
    }

    /// Sets how it tries to get into service. Not while it is started.
    void pace(const Pace& pace) {
        pace_.first = std::max(pace.first, std::chrono::milliseconds(1));
        pace_.longest = std::max(std::min(pace.longest, kLongestLimit), pace_.first);
        pace_.answer = std::min(pace.answer, kLongestLimit);
    }

    /// Starts to get into service, and returns at once: whether there is a Manager does not matter.
    /// Returns false, with error() and log lines that say why, if the names or a definition are
    /// wrong, an opcode occurs twice, another Service is started or no thread can be.
    bool start() {
        const std::lock_guard lock(lifecycle_);
        if (is_started_) return true;
        if (!check()) return false;
        stopping_ = false;
        reported_.clear();
        is_started_ = start_thread<&Service::supervise>(&supervisor_);
        if (is_started_) return true;
        release();
        return fail("no thread can be started");
    }

    /// Takes leave of the Manager, tries no more and waits for functions that run, however long
    /// they take (Call::is_stopping() tells them); their replies are lost. Then nothing of this
    /// object is in use and start() may follow. From a function or a hook it is request_stop().
    /// Takes half a second otherwise, longer with a slow hook, 20 s if the Manager's queue of
    /// connections is full. Any thread. If the Manager has closed the connection while an id was
    /// asked for, the library goes on to look for it for 20 s.
    void stop() {
        request_stop();
        if (internal::tCalls > 0 || internal::tInHook) return;
        const std::lock_guard lock(lifecycle_);
        if (!is_started_) return;
        pthread_join(supervisor_, nullptr);
        release();
        is_started_ = false;
    }

    /// Has run() return, and the service take leave, soon. Nothing if it is not started. Any
    /// thread, but no signal handler.
    void request_stop() {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
        internal::EndingSignals::wake();
    }

    /// Starts, waits for SIGINT, SIGTERM or request_stop(), and stops. A second signal ends the
    /// process. Returns what main() may return: 0, or 1 if start() failed.
    int run() {
        {
            internal::EndingSignals signals;
            if (!start()) return 1;
            while (!stopping_ && !signals.has_come()) signals.wait();
        }
        stop();
        return 0;
    }

    /// Waits until all is in service, for `limit` at most. Returns whether it is.
    bool wait_until_in_service(std::chrono::milliseconds limit) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::min(limit, kLongestLimit),
                                 [this] { return in_service_; });
    }

    /// Returns what start() had to say, empty if nothing.
    const std::string& error() const { return error_; }

  private:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds kLongestLimit = std::chrono::hours(24);

    template <class Each>
    void for_each_api(Each each) {
        each(*this);
        for (const auto& other : others_) each(*other);
    }

    // ---- Start and stop

    bool fail(const std::string& why) {
        error_ += (error_.empty() ? "" : "; ") + why;
        internal::log(internal::kAlways, "Service " + name_ + " cannot start: " + why);
        return false;
    }

    bool check() {
        error_.clear();
        for_each_api([this](const Api& api) {
            for (const std::string& problem : api.problems()) fail(problem);
        });
        return error_.empty() && acquire();
    }

    // Has the library's callbacks find the services.
    bool acquire() {
        internal::Slots& all = internal::slots();
        const std::lock_guard lock(all.mutex);
        if (all.started != nullptr) return fail("another service of the process is started");
        for_each_api([&](Api& api) {
            const std::size_t at = internal::slot_of(&all, api.opcode_);
            api.slot_ = at;
            if (at == internal::kSlots) {
                fail("there are too many opcodes");
            } else if (all.slots[at].api != nullptr) {
                fail("two services have the opcode 0x" + internal::hexadecimal(api.opcode_));
            } else {
                const std::lock_guard slot_lock(all.slots[at].mutex);
                all.slots[at].api = &api;
            }
        });
        if (error_.empty()) {
            all.started = this;
        } else {
            vacate();
        }
        return error_.empty();
    }

    // Has them find nothing any more.
    void vacate() {
        for (internal::Slot& slot : internal::slots().slots) {
            const std::lock_guard lock(slot.mutex);
            if (slot.api != nullptr && slot.api->service_ == this) slot.api = nullptr;
        }
    }

    // The same, and waits for those that are there.
    void release() {
        vacate();
        for_each_api([](const Api& api) {
            internal::Slot& slot = internal::slots().slots[api.slot_];
            std::unique_lock lock(slot.mutex);
            slot.left.wait(lock, [&slot] { return slot.running == 0; });
        });
        const std::lock_guard lock(internal::slots().mutex);
        internal::slots().started = nullptr;
    }

    template <void (Service::*kBody)()>
    bool start_thread(pthread_t* thread) {
        const auto run = [](void* self) -> void* {
            (static_cast<Service*>(self)->*kBody)();
            return nullptr;
        };
        return pthread_create(thread, nullptr, run, this) == 0;
    }

    // ---- The thread that keeps the services in service

    void supervise() {
        auto pause = pace_.first;
        while (!stopping_) {
            const bool stayed = attempt() && serve();
            run_until<&Service::leave>(internal::kLeaveLimit, [] { return false; });
            if (stayed) pause = pace_.first;
            rest(pause);
            pause = std::min(2 * pause, pace_.longest);
        }
        vexa_svc_on_receive_end(nullptr, nullptr);
    }

    // Serves until the connection is lost or the service stops. Returns whether it was for long.
    bool serve() {
        const auto begin = Clock::now();
        report("in service", internal::kProgress);
        set_in_service(true);
        tell({Event::Kind::kInService, 0, 0, 0, {}, {}, {}, false});
        std::string why = "stopping";
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || lost_ != nullptr; });
            if (!stopping_) why = lost_;
        }
        set_in_service(false);
        report("out of service: " + why, internal::kFailure);
        out_of_service_ = std::move(why);
        return Clock::now() - begin >= pace_.longest;
    }

    // Sessions would meet the next Manager, and a negative id has to be given back, too. The
    // Manager may have given another id meanwhile, which vexa_svc_init() then tells.
    void leave() {
        if (!out_of_service_.empty()) {
            tell({Event::Kind::kOutOfService, 0, 0, 0, {}, std::move(out_of_service_), {}, false});
            out_of_service_.clear();
        }
        is_leaving_ = true;
        if (id_ >= 0) terminate_sessions();
        for (int tries = 3; tries > 0; --tries) {
            if (vexa_svc_deinit(static_cast<std::uint32_t>(id_)) != -2) return;
            id_ = vexa_svc_init();
        }
    }

    void rest(std::chrono::milliseconds pause) {
        const double chance = std::uniform_real_distribution<double>(0.75, 1.25)(random_);
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, chance * pause, [this] { return stopping_.load(); });
    }

    // Tries to get into service. Returns whether all services are ready.
    bool attempt() {
        vexa_svc_on_receive_end(on_receive_end, this);  // what is told of the former says so
        {
            const std::lock_guard lock(mutex_);
            lost_ = nullptr;
        }
        failure_ = "no thread can be started";
        id_ = -1;
        is_leaving_ = false;
        const bool in_time =
            run_until<&Service::make_attempt>(pace_.answer, [this] { return stopping_.load(); });
        if (!in_time && !stopping_) failure_ = "the Manager does not answer";
        if (failure_.empty()) return true;
        if (!stopping_) report("not in service: " + failure_, internal::kFailure);
        return false;
    }

    // Runs what may wait for the Manager on a thread of its own; after `limit`, if it is not 0, or
    // when it is not wanted any more, the connection is closed, which ends the wait. Returns
    // whether that was not necessary.
    template <void (Service::*kBody)(), class Unwanted>
    bool run_until(std::chrono::milliseconds limit, Unwanted unwanted) {
        std::unique_lock lock(mutex_);
        is_over_ = false;
        pthread_t thread;
        if (!start_thread<&Service::run_body<kBody>>(&thread)) return true;
        const auto is_over = [&] { return is_over_ || unwanted(); };
        if (limit.count() == 0) limit = kLongestLimit;
        changed_.wait_for(lock, limit, is_over);
        const bool by_itself = is_over_;
        while (!is_over_) {
            lock.unlock();
            disconnect_from_manager();
            lock.lock();
            changed_.wait_for(lock, std::chrono::milliseconds(50), [this] { return is_over_; });
        }
        lock.unlock();
        pthread_join(thread, nullptr);
        return by_itself;
    }

    template <void (Service::*kBody)()>
    void run_body() {
        (this->*kBody)();
        const std::lock_guard lock(mutex_);
        is_over_ = true;
        changed_.notify_all();
    }

    void make_attempt() { failure_ = try_to_offer(); }

    // Returns what has failed, nothing if all services are ready.
    std::string try_to_offer() {
#if defined(__cpp_exceptions)
        try {
            return offer();
        } catch (const std::exception& error) {
            return error.what();
        } catch (...) {
            return "an exception of an unknown type";
        }
#else
        return offer();
#endif
    }

    std::string offer() {
        id_ = vexa_svc_init();
        if (id_ < 0) return "no service id from the Manager";
        std::string failure;
        for_each_api([&](Api& api) {
            if (failure.empty() && !stopping_) failure = offer(api);
        });
        return failure;
    }

    std::string offer(Api& api) {
        const auto id = static_cast<std::uint32_t>(id_);
        const std::string blob = static_cast<char>(VEXA_JSON_DEF_VER_ARR) + api.definition();
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(blob.c_str());
        if (_vexa_svc_register_auth(id, api.opcode_, bytes, api.token_.c_str()) != 0) {
            return "the registration of " + api.name_ + " failed";
        }
        if (_vexa_svc_ready(id, api.opcode_, on_state_callback, &api,
                            internal::kExecCallbacks[api.slot_]) != 0) {
            return "the readiness of " + api.name_ + " failed";
        }
        return {};
    }

    // Not each of many failed attempts.
    void report(std::string what, int level) {
        if (what == reported_) return;
        reported_ = std::move(what);
        internal::log(level, "Service " + name_ + ' ' + reported_);
    }

    void set_in_service(bool in_service) {
        const std::lock_guard lock(mutex_);
        in_service_ = in_service;
        changed_.notify_all();
    }

    // ---- What the library tells

    void lose(const char* why) {
        const std::lock_guard lock(mutex_);
        if (lost_ == nullptr) lost_ = why;
        changed_.notify_all();
    }

    static void on_receive_end(vexa_receive_end_t reason, void* self) {
        const bool by_this_process =
            reason == VEXA_RECEIVE_END_DISCONNECTED || reason == VEXA_RECEIVE_END_CLOSED;
        if (!by_this_process) static_cast<Service*>(self)->lose(internal::kReceiveEnds[reason]);
    }

    static int on_state_callback(int, vexa_req_t* request, void* user_data) {
        Api& api = *static_cast<Api*>(user_data);
        const bool accepts = api.service_->notice(api, *request);
        return accepts || request->status != VEXA_STATUS_SESSION_START ? 0 : -1;
    }

    // Each service is told of changes; the hook once. A session that starts when the others have
    // ended would outlive the connection.
    bool notice(const Api& api, const vexa_req_t& request) {
        if (request.status == VEXA_STATUS_TERMINATED) {
            lose(internal::kReceiveEnds[VEXA_RECEIVE_END_CLOSED]);
            return true;
        }
        const std::optional<Event::Kind> kind = kind_of(request.status);
        if (!kind || (*kind >= Event::Kind::kPermission && &api != this)) return true;
        if (*kind == Event::Kind::kSessionStart && is_leaving_) return false;
        const std::size_t colon = std::min(request.state.find(':'), request.state.size());
        const bool is_permission = *kind == Event::Kind::kPermission;
        return tell({*kind, request.opcode, request.subsys_id, request.session_id,
                     is_permission ? request.permission : request.state.substr(0, colon),
                     request.state.substr(std::min(colon + 1, request.state.size())),
                     request.package == "null" ? "" : request.package,
                     request.permission_status != 0});
    }

    static std::optional<Event::Kind> kind_of(vexa_status_t status) {
        switch (status) {
            case VEXA_STATUS_SESSION_START:
                return Event::Kind::kSessionStart;
            case VEXA_STATUS_SESSION_READY:
                return Event::Kind::kSessionReady;
            case VEXA_STATUS_SESSION_END:
                return Event::Kind::kSessionEnd;
            case VEXA_STATUS_PERMISSION_CHANGE:
                return Event::Kind::kPermission;
            case VEXA_STATUS_STATE_CHANGE:
                return Event::Kind::kState;
            case VEXA_STATUS_SYSTEM_SETTING_CHANGE:
                return Event::Kind::kSetting;
            default:
                return std::nullopt;
        }
    }

    // Returns what the hook does, true without one.
    bool tell(const Event& event) {
        if (!hook_) return true;
        internal::tInHook = true;
        const bool result = run_hook(event);
        internal::tInHook = false;
        return result;
    }

    bool run_hook(const Event& event) {
#if defined(__cpp_exceptions)
        try {
            return hook_(event);
        } catch (const std::exception& error) {
            internal::log(internal::kFailure, "A hook of " + name_ + " failed: " + error.what());
        } catch (...) {
            internal::log(internal::kFailure, "A hook of " + name_ + " failed");
        }
        return false;
#else
        return hook_(event);
#endif
    }

    friend class Api;

    std::vector<std::unique_ptr<Api>> others_;
    std::function<bool(const Event&)> hook_;
    Pace pace_;
    std::string error_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> is_leaving_{false};

    std::mutex lifecycle_;  // before all others, for the two that follow
    bool is_started_ = false;
    pthread_t supervisor_{};

    // Of the supervisor and what it runs, of which one waits for the other.
    int id_ = -1;
    std::string failure_;
    std::string reported_;
    std::string out_of_service_;  // why, if it was in service since it was last told
    std::minstd_rand random_{
        static_cast<std::minstd_rand::result_type>(Clock::now().time_since_epoch().count())};

    mutable std::mutex mutex_;  // for what follows, and for changes of `stopping_`
    mutable std::condition_variable changed_;
    const char* lost_ = nullptr;  // why, once the connection is lost
    bool is_over_ = false;        // what the supervisor has run
    bool in_service_ = false;
};

/// \cond
inline bool Api::is_stopping() const {
    return service_->stopping_;
}
/// \endcond

inline std::uint32_t Call::opcode() const {
    return api_.opcode();
}

inline bool Call::is_stopping() const {
    return api_.is_stopping();
}

inline std::optional<Error> Call::check_permission(std::string_view name) const {
    const Permission permission = this->permission(name);
    if (permission == Permission::kGranted) return std::nullopt;
    const bool is_denied = permission == Permission::kDenied;
    return Error(kDenied, (is_denied ? "the permission is missing: "
                                     : "the permission could not be asked for: ") +
                              std::string(name));
}

inline Permission ask_permission(std::uint32_t session, std::string_view name) {
    const std::vector<bool> granted = vexa_permission_query(session, {internal::escaped(name)});
    switch (vexa_query_outcome()) {
        case VEXA_QUERY_NOT_SENT:
            return Permission::kNotSent;
        case VEXA_QUERY_NO_ANSWER:
            return Permission::kNoAnswer;
        default:
            return granted.size() == 1 && granted[0] ? Permission::kGranted : Permission::kDenied;
    }
}

namespace internal {

using InfoQuery = std::vector<std::string> (*)(unsigned int, std::vector<std::string>);

inline Info ask_info(InfoQuery query, std::uint32_t session, std::string_view name) {
    const std::vector<std::string> answers = query(session, {escaped(name)});
    if (vexa_query_outcome() == VEXA_QUERY_NOT_SENT) return {Info::Outcome::kNotSent, {}};
    if (vexa_query_outcome() == VEXA_QUERY_NO_ANSWER) return {Info::Outcome::kNoAnswer, {}};
    std::string text;
    const int result = parse_result_of_query_info(answers.empty() ? "" : answers[0], text);
    return {result == 0 ? Info::Outcome::kValue : Info::Outcome::kError, text};
}

}  // namespace internal

inline Info ask_info(std::uint32_t session, std::string_view name) {
    return internal::ask_info(vexa_info_query, session, name);
}

inline Info monitor_info(std::uint32_t session, std::string_view name) {
    return internal::ask_info(vexa_info_monitor, session, name);
}

}  // namespace vexon
