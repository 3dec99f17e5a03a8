#include "driver/caller.h"

namespace bench {

bool has_grpc() {
    return false;
}

std::unique_ptr<Caller> make_grpc_caller(const std::string&) {
    throw CallFailed("this was built without gRPC");
}

}  // namespace bench
