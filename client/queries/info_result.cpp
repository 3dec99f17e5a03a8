// SPDX-License-Identifier: Apache-2.0
// Taking apart and putting together the texts of information queries. Any thread.

#include <string>
#include <vector>

#include "client/utility/logging.h"
#include "vexon2_0.h"

std::string vector_to_string_with_quotes(std::vector<std::string> texts) {
    std::string list;
    for (const std::string& text : texts) list += '"' + text + "\",";
    if (!list.empty()) list.pop_back();
    return list;
}

int parse_result_of_query_info(std::string text, std::string& out) {
    log_line(kTrace, "parse_result_of_query_info original result: %s", text.c_str());
    if (text.empty()) {
        out = "Empty result";
        return -1;
    }
    const std::size_t colon = text.find(':');
    const std::string status = text.substr(0, colon);
    log_line(kTrace, "statue of original result: %s", status.c_str());
    if (status != "SUCCESS" && status != "ERROR") {
        out = "Invalid result";
        return -1;
    }
    out = colon == std::string::npos ? "" : text.substr(colon + 1);
    log_line(kTrace, "result of original result: %s", out.c_str());
    return status == "SUCCESS" ? 0 : -1;
}
