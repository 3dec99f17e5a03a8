#include <grpcpp/grpcpp.h>

#include <array>
#include <chrono>

#include "call.grpc.pb.h"
#include "driver/caller.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{60};

template <class Encoded>
void encode(const Argument& argument, Encoded* out) {
    if (argument.type == "int32") {
        out->set_number(static_cast<std::int32_t>(argument.number));
    } else if (argument.type == "double") {
        out->set_real(argument.number);
    } else if (argument.type == "string") {
        out->set_text(argument.text);
    } else if (argument.type == "vector") {
        for (const Argument& element : argument.parts) {
            out->mutable_numbers()->add_values(static_cast<std::int32_t>(element.number));
        }
    } else {
        int id = 0;
        for (const Argument& member : argument.parts) {
            rpc::Argument* const encoded = out->mutable_members()->add_arguments();
            encoded->set_id(id++);
            encode(member, encoded);
        }
    }
}

class GrpcCaller final : public Caller {
  public:
    explicit GrpcCaller(const std::string& path)
        : channel_(grpc::CreateChannel("unix:" + path, grpc::InsecureChannelCredentials())),
          stub_(rpc::Calls::NewStub(channel_)) {
        if (!channel_->WaitForConnected(std::chrono::system_clock::now() + kPatience)) {
            throw CallFailed("gRPC: the service does not listen");
        }
    }

    ~GrpcCaller() override {
        queue_.Shutdown();
        void* tag = nullptr;
        bool ok = false;
        while (queue_.Next(&tag, &ok)) {
        }
    }

    void use(const Message& message) override {
        request_.Clear();
        request_.set_opcode(kOpcode);
        request_.set_subsystem(kSubsystem);
        request_.set_session(kSession);
        request_.set_function(message.function);
        int id = 0;
        for (const Argument& argument : message.arguments) {
            rpc::Argument* const encoded = request_.add_arguments();
            encoded->set_id(id++);
            encode(argument, encoded);
        }
        checksum_ = checksum(message.arguments);
    }

    void start(unsigned slot) override {
        Call& call = calls_[slot];
        call.context = std::make_unique<grpc::ClientContext>();
        call.reader = stub_->AsyncExecute(call.context.get(), request_, &queue_);
        call.reader->Finish(&call.reply, &call.status, &call);
    }

    unsigned finish() override {
        void* tag = nullptr;
        bool ok = false;
        queue_.Next(&tag, &ok);
        const Call& call = *static_cast<Call*>(tag);
        if (!ok || !call.status.ok() || call.reply.out() != checksum_) {
            throw CallFailed("gRPC: " + call.status.error_message());
        }
        return static_cast<unsigned>(&call - calls_.data());
    }

  private:
    struct Call {
        std::unique_ptr<grpc::ClientContext> context;
        std::unique_ptr<grpc::ClientAsyncResponseReader<rpc::Reply>> reader;
        rpc::Reply reply;
        grpc::Status status;
    };

    const std::shared_ptr<grpc::Channel> channel_;
    const std::unique_ptr<rpc::Calls::Stub> stub_;
    grpc::CompletionQueue queue_;
    rpc::Request request_;
    std::int64_t checksum_ = 0;
    std::array<Call, kMostInFlight> calls_;
};

}  // namespace

bool has_grpc() {
    return true;
}

std::unique_ptr<Caller> make_grpc_caller(const std::string& path) {
    return std::make_unique<GrpcCaller>(path);
}

}  // namespace bench
