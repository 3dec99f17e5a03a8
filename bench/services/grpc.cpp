// The same service on gRPC, with its synchronous server: a thread of its pool for each call.

#include <grpcpp/grpcpp.h>

#include <string>

#include "call.grpc.pb.h"
#include "services/until_told.h"

namespace {

template <class Arguments>
std::int64_t sum_of(const Arguments& arguments);

std::int64_t sum_of_value(const bench::rpc::Argument& argument) {
    switch (argument.value_case()) {
        case bench::rpc::Argument::kNumber:
            return argument.number();
        case bench::rpc::Argument::kReal:
            return static_cast<std::int64_t>(argument.real());
        case bench::rpc::Argument::kText:
            return static_cast<std::int64_t>(argument.text().size());
        case bench::rpc::Argument::kMembers:
            return sum_of(argument.members().arguments());
        case bench::rpc::Argument::kNumbers: {
            std::int64_t sum = 0;
            for (const int value : argument.numbers().values()) sum += value;
            return sum;
        }
        default:
            return 0;
    }
}

template <class Arguments>
std::int64_t sum_of(const Arguments& arguments) {
    std::int64_t sum = 0;
    for (const bench::rpc::Argument& argument : arguments) sum += sum_of_value(argument);
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

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    Service service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + std::string(argv[1]), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    if (server == nullptr) return 1;
    bench::wait_until_told();
    server->Shutdown();
    return 0;
}
