// SPDX-License-Identifier: Apache-2.0
#include "client/receiving/receive.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "client/link/connection.h"
#include "client/link/life.h"
#include "client/receiving/dispatch.h"
#include "client/receiving/receive_end.h"
#include "client/sessions/session_loss.h"
#include "client/utility/json_access.h"
#include "client/utility/logging.h"

namespace {

constexpr std::size_t kHandshakeBufferSize = 5120;
constexpr std::size_t kSessionBufferSize = 524288;
constexpr useconds_t kErrorPauseUs = 500'000;

class ReceiveLoop {
  public:
    ReceiveLoop(Life life, std::shared_ptr<ManagerSocket> socket)
        : life_(life), socket_(std::move(socket)) {}

    // Returns why nobody receives any more.
    vexa_receive_end_t run() {
        while (receive_one()) {
        }
        return reason_;
    }

  private:
    // Returns whether to go on.
    bool receive_one() {
        log_line(kTrace, "Waiting for recv from server");
        errno = 0;
        const ssize_t size =
            ::recvfrom(socket_fd(), buffer_.data(), buffer_.size(), 0, nullptr, nullptr);
        const int error = errno;
        if (closed_by_this_process()) return end(VEXA_RECEIVE_END_DISCONNECTED, size, error);
        if (size < 0 && error == ECONNRESET) return end(VEXA_RECEIVE_END_RESET, size, error);
        if (size == 0) {
            log_line(kFailure, "Communication with manager failed (%s)", std::strerror(error));
            if (!close_lost_connection(socket_)) {
                return end(VEXA_RECEIVE_END_DISCONNECTED, size, error);
            }
            reason_ = recover();
            return false;
        }
        if (size < 0) {
            log_line(kFailure, "Error receiving msg from manager (%s)", std::strerror(error));
            pause_after_error(buffer_.size());
            return true;
        }
        return handle_packet(static_cast<std::size_t>(size));
    }

    // Returns false, as what comes last.
    bool end(vexa_receive_end_t reason, ssize_t size, int error) {
        log_line(kFailure, "%s: recv failed, exit thread.. in_size = %ld, error %d:(%s)",
                 "recv_msg_from_mgr", static_cast<long>(size), error, std::strerror(error));
        reason_ = reason;
        return false;
    }

    int socket_fd() const { return socket_ == nullptr ? -1 : socket_->fd(); }

    bool closed_by_this_process() const {
        return is_over(life_) || gMgrSocket_fd != socket_fd() || gMgrSocket_fd == -1;
    }

    bool handle_packet(std::size_t size) {
        log_line(kAlways, "Client received!!!");
        try {
            return parse_and_dispatch(size);
        } catch (const std::bad_alloc&) {
            log_line(kFailure, "Out of memory");
            clear_buffer(size);
            return true;
        }
    }

    bool parse_and_dispatch(std::size_t size) {
        Json::Value message;
        if (!parse(size, &message)) {
            log_line(kFailure, "Failed to parse VEXON manager request");
            pause_after_error(size);
            return true;
        }
        const AfterMessage next = dispatch_message(message);
        if (next == AfterMessage::kEndThread) {
            reason_ = VEXA_RECEIVE_END_REFUSED;
            return false;
        }
        if (next != AfterMessage::kKeepBuffer) clear_buffer(size);
        if (next == AfterMessage::kGrowBuffer) grow_buffer();
        return true;
    }

    // A packet may fill the buffer to the last byte: its length bounds the text, not a NUL alone.
    bool parse(std::size_t size, Json::Value* message) {
        const char* const begin = buffer_.data();
        const void* const nul = std::memchr(begin, '\0', size);
        const char* const end = nul == nullptr ? begin + size : static_cast<const char*>(nul);
        return reader_.parse(begin, end, message, nullptr) && message->isObject();
    }

    void grow_buffer() {
        if (buffer_.size() < kSessionBufferSize) buffer_ = std::vector<char>(kSessionBufferSize);
    }

    void clear_buffer(std::size_t size) {
        std::fill_n(buffer_.begin(), static_cast<std::ptrdiff_t>(size), '\0');
    }

    void pause_after_error(std::size_t size) {
        clear_buffer(size);
        ::usleep(kErrorPauseUs);
    }

    // Returns how it ended.
    vexa_receive_end_t recover() {
        socket_ = nullptr;
        stop_receiving(life_);
        tell_services(terminate_sessions);
        forget_init();
        const Reconnection outcome = reconnect_in(life_);
        if (outcome == Reconnection::kTimedOut) return VEXA_RECEIVE_END_TIMED_OUT;
        if (outcome == Reconnection::kNotWanted) return VEXA_RECEIVE_END_CLOSED;
        tell_services(send_reconnection_notification);
        return VEXA_RECEIVE_END_RECONNECTED;
    }

    // A service's mistake does not end the process.
    static void tell_services(int (*tell)()) {
        try {
            tell();
        } catch (const std::exception& error) {
            log_line(kFailure, "Failed to tell a service of the Manager's state (%s)",
                     error.what());
        }
    }

    // A callback may have taken so long that the process has begun anew by now.
    void forget_init() {
        std::lock_guard<std::mutex> lock(gInitMutex);
        if (!is_over(life_)) gInitDone = false;
    }

    const Life life_;
    std::shared_ptr<ManagerSocket> socket_;
    vexa_receive_end_t reason_ = VEXA_RECEIVE_END_ERROR;
    JsonReader reader_;
    std::vector<char> buffer_ = std::vector<char>(kHandshakeBufferSize);
};

vexa_receive_end_t receive_all(Life life, std::shared_ptr<ManagerSocket> socket) {
    const std::weak_ptr<ManagerSocket> connection = socket;
    try {
        return ReceiveLoop(life, std::move(socket)).run();
    } catch (const std::exception& error) {
        log_line(kFailure, "Failed to receive from the Manager (%s)", error.what());
    }
    // What comes on it would be taken for answers to a later thread's questions.
    if (const auto open = connection.lock()) close_lost_connection(open);
    return VEXA_RECEIVE_END_ERROR;
}

}  // namespace

int recv_msg_from_mgr(Life life, std::shared_ptr<ManagerSocket> socket) {
    become_receive_thread();
    vexa_receive_end_t reason = VEXA_RECEIVE_END_DISCONNECTED;
    {
        const LifeScope scope(life);
        reason = receive_all(life, std::move(socket));
        stop_receiving(life);
    }
    tell_receive_end(life, reason);
    return 0;
}
