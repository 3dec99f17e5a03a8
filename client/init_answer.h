#pragma once

#include "client/dispatch.h"

// "INIT": stores the service id and wakes vexa_svc_init().
AfterMessage on_init(const Json::Value& message);
