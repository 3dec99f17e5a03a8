#include "client/receive.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "client/auth_regs_redy.h"
#include "client/connection.h"
#include "client/dispatch.h"
#include "client/json_access.h"
#include "client/logging.h"
#include "client/session_loss.h"

namespace {

constexpr std::size_t kHandshakeBufferSize = 5120;
constexpr std::size_t kSessionBufferSize = 524288;
constexpr useconds_t kErrorPauseUs = 500'000;

// The number of this receive thread; 0 on all other threads.
thread_local std::uint32_t tReceiver = 0;

class ReceiveLoop {
  public:
    void run() {
        while (receive_one()) {
        }
    }

  private:
    // Returns whether to go on.
    bool receive_one() {
        log_line(kTrace, "Waiting for recv from server");
        errno = 0;
        const ssize_t size =
            ::recvfrom(socket_fd(), buffer_.data(), buffer_.size(), 0, nullptr, nullptr);
        const int error = errno;
        if (closed_by_this_process() || (size < 0 && error == ECONNRESET)) {
            return end(size, error);
        }
        if (size == 0) {
            log_line(kFailure, "Communication with manager failed (%s)", std::strerror(error));
            if (!close_lost_connection(socket_)) return end(size, error);
            recover();
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
    bool end(ssize_t size, int error) {
        log_line(kFailure, "%s: recv failed, exit thread.. in_size = %ld, error %d:(%s)",
                 "recv_msg_from_mgr", static_cast<long>(size), error, std::strerror(error));
        stop_receiving(receiver_);
        return false;
    }

    int socket_fd() const { return socket_ == nullptr ? -1 : socket_->fd(); }

    bool closed_by_this_process() const {
        return gReceiver != receiver_ || gMgrSocket_fd != socket_fd() || gMgrSocket_fd == -1;
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
            stop_receiving(receiver_);
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

    void recover() {
        socket_ = nullptr;
        stop_receiving(receiver_);
        tell_services(terminate_sessions);
        forget_init();
        if (reconnect_as(receiver_) == 0) tell_services(send_reconnection_notification);
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
        if (gReceiver == receiver_) gInitDone = false;
    }

    const std::uint32_t receiver_ = tReceiver;
    std::shared_ptr<ManagerSocket> socket_ = current_connection();
    JsonReader reader_;
    std::vector<char> buffer_ = std::vector<char>(kHandshakeBufferSize);
};

}  // namespace

int recv_msg_from_mgr() {
    tReceiver = gReceiver;
    ReceiveLoop().run();
    return 0;
}

bool on_receive_thread() {
    return tReceiver != 0;
}

bool superseded() {
    return on_receive_thread() && tReceiver != gReceiver;
}

bool refused_on_receive_thread(const char* function) {
    if (!on_receive_thread()) return false;
    log_line(kFailure, "Failed to run %s: it cannot wait for the Manager in a state callback",
             function);
    return true;
}

bool is_receiving() {
    std::lock_guard<std::mutex> lock(gInitMutex);
    return gReceiving;
}

void stop_receiving(std::uint32_t receiver) {
    {
        std::lock_guard<std::mutex> lock(gInitMutex);
        if (gReceiver != receiver) return;
        gReceiving = false;
        init_cv.notify_all();
    }
    fail_pending_acknowledgements();
}
