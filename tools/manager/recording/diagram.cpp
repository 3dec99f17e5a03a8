// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <random>
#include <utility>

#include "manager/base/json.h"
#include "manager/recording/pictures.h"

namespace manager {
namespace {

constexpr char kPage[] =
#include "diagram_page.inc"
    ;

std::string remark(const PicturedEvent& event) {
    if (event.role == Role::Other) return {};
    if (!event.partner) return event.role == Role::Request ? "no answer" : "no request";
    if (event.role == Role::Request) return {};
    const std::chrono::duration<double, std::milli> latency = event.begin - event.partner->begin;
    return fmt::format("after {:.3f} ms", latency.count());
}

std::string object(const PicturedEvent& event, const std::vector<PicturedEvent>& events) {
    return fmt::format(
        R"({{"kind":"{}","client":{},"time":{:.6f},"wall":{},"title":{},"remark":{},)"
        R"("failed":{},"partner":{},"text":{}}})",
        !is_packet(event)              ? "change"
        : event.kind == Kind::ToClient ? "to"
                                       : "from",
        event.client, std::chrono::duration<double>(event.begin).count(),
        json_text(event.written_time), json_text(title(event)), json_text(remark(event)),
        event.failed || (event.role != Role::Other && !event.partner),
        event.partner ? std::to_string(event.partner - events.data()) : "null",
        json_text(event.text));
}

void replace_all(std::string& text, const std::string& old, const std::string& replacement) {
    for (auto at = text.find(old); at != std::string::npos; at = text.find(old, at)) {
        text.replace(at, old.size(), replacement);
    }
}

}  // namespace

void write_diagram(const std::vector<PicturedEvent>& events, std::ostream& output) {
    std::string page = kPage;
    // Only what has the nonce is carried out, whatever gets out of the packets into the page.
    std::random_device random;
    replace_all(page, "{{nonce}}", fmt::format("{:08x}{:08x}", random(), random()));
    const std::string mark = "{{events}}";
    const std::size_t at = page.find(mark);
    const char* separator = "[\n";
    output << page.substr(0, at) << (events.empty() ? "[" : "");
    for (const PicturedEvent& event : events) {
        // The texts of packets may hold the end of the element that this stands in.
        std::string text = object(event, events);
        replace_all(text, "<", "\\u003c");
        output << std::exchange(separator, ",\n") << text;
    }
    output << ']' << page.substr(at + mark.size());
}

}  // namespace manager
