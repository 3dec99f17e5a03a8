#pragma once

#include "client/dispatch.h"

// "PERMISSION": the answer to vexa_permission_query().
AfterMessage on_permission(const Json::Value& message);
