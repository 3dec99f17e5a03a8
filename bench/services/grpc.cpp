// SPDX-License-Identifier: Apache-2.0
// The same service on gRPC, with its synchronous server: a thread of its pool for each call.

#include <grpcpp/grpcpp.h>

#include <cstdio>

#include "call.grpc.pb.h"
#include "message.h"

namespace {

template <class Arguments>
std::int64_t sum_of(const Arguments& arguments) {
    std::int64_t sum = 0;
    for (const bench::rpc::Argument& argument : arguments) {
        if (argument.has_number()) {
            sum += argument.number();
        } else if (argument.has_real()) {
            sum += static_cast<std::int64_t>(argument.real());
        } else if (argument.has_text()) {
            sum += static_cast<std::int64_t>(argument.text().size());
        } else if (argument.has_members()) {
            sum += sum_of(argument.members().arguments());
        } else {
            for (const int value : argument.numbers().values()) sum += value;
        }
    }
    return sum;
}

class Service final : public bench::rpc::Calls::Service {
    grpc::Status Execute(grpc::ServerContext*, const bench::rpc::Request* request,
                         bench::rpc::Reply* reply) override {
        reply->set_out(sum_of(request->arguments()));
        return grpc::Status::OK;
    }
};

}  // namespace

int main() {
    Service service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(bench::kGrpcPath, grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    if (server == nullptr) return 1;
    std::getchar();  // until the driver is gone
    server->Shutdown();
    return 0;
}
