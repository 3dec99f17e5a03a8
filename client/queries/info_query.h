// SPDX-License-Identifier: Apache-2.0
// "INFO_QUERY" and "INFO_MNTR": information that a service asks for, and the answers.

#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "client/link/after_message.h"

// "INFO_QUERY" and "INFO_MNTR": the answers to vexa_info_query() and vexa_info_monitor().
AfterMessage on_info(const Json::Value& message);

// Asks for `names` and waits for the answer. `kind` is the text of the request from its type up to
// the session id, `label` the word that names the call in log lines.
std::vector<std::string> vexa_info_common(unsigned int session_id,
                                          const std::vector<std::string>& names,
                                          const std::string& kind, const char* label);
