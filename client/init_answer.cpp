#include "client/init_answer.h"

#include "client/json_access.h"
#include "client/life.h"

AfterMessage on_init(const Json::Value& message) {
    const int id = int_member(message, "service_id", -1);
    {
        std::lock_guard<std::mutex> lock(gClientMutex);
        if (superseded()) return AfterMessage::kEndThread;
        gService_id = id;
    }
    std::lock_guard<std::mutex> lock(gInitMutex);
    if (superseded()) return AfterMessage::kEndThread;
    response_for_init = true;
    init_cv.notify_one();
    if (id < 0) {
        gReceiving = false;  // the next vexa_svc_init() must not count on this thread any more
        return AfterMessage::kEndThread;
    }
    gInitDone = true;
    return AfterMessage::kClearBuffer;
}
