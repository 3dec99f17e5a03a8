// SPDX-License-Identifier: Apache-2.0
#include <grpcpp/grpcpp.h>

#include <array>
#include <chrono>

#include "call.grpc.pb.h"
#include "driver/caller.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{60};

template <class Arguments>
void encode(const std::vector<Argument>& arguments, Arguments* out) {
    for (const Argument& argument : arguments) {
        rpc::Argument* const encoded = out->add_arguments();
        encoded->set_id(out->arguments_size() - 1);
        if (argument.type == "int32") {
            encoded->set_number(static_cast<std::int32_t>(argument.number));
        } else if (argument.type == "double") {
            encoded->set_real(argument.number);
        } else if (argument.type == "string") {
            encoded->set_text(argument.text);
        } else if (argument.type == "struct") {
            encode(argument.parts, encoded->mutable_members());
        } else {
            for (const Argument& element : argument.parts) {
                encoded->mutable_numbers()->add_values(static_cast<std::int32_t>(element.number));
            }
        }
    }
}

class GrpcCaller final : public Caller {
  public:
    GrpcCaller() {
        if (!channel_->WaitForConnected(std::chrono::system_clock::now() + kPatience)) {
            throw std::runtime_error("gRPC: the service does not listen");
        }
    }

    void use(const Message& message) override {
        request_.Clear();
        request_.set_opcode(kOpcode);
        request_.set_subsystem(kSubsystem);
        request_.set_session(kSession);
        request_.set_function(message.function);
        encode(message.arguments, &request_);
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
            throw std::runtime_error("gRPC: " + call.status.error_message());
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

    const std::shared_ptr<grpc::Channel> channel_ =
        grpc::CreateChannel(kGrpcPath, grpc::InsecureChannelCredentials());
    const std::unique_ptr<rpc::Calls::Stub> stub_ = rpc::Calls::NewStub(channel_);
    grpc::CompletionQueue queue_;
    rpc::Request request_;
    std::int64_t checksum_ = 0;
    std::array<Call, kMostInFlight> calls_;
};

}  // namespace

std::unique_ptr<Caller> make_grpc_caller(int) {
    return std::make_unique<GrpcCaller>();
}

}  // namespace bench
