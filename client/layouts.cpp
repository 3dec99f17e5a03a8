// SPDX-License-Identifier: Apache-2.0
// Fixes where the members of the public records lie, on both data models and with both standard
// libraries: services are compiled against them. Nothing but the compiler runs this.

#include <cstddef>
#include <cstdint>
#include <string>

#include "vexon2_0.h"

namespace {

struct Aligned {
    char first;
    std::int64_t second;
};

// In bytes. What depends on them: how large a text and a pointer are, and where 64 bits may begin.
struct Layout {
    std::size_t text, pointer, alignment;
    std::size_t permission_status, state, package, notification;  // of vexa_req_t
    std::size_t value_queue, type_queue, arguments;               // of vexon_func_call_info_t
    std::size_t opcode, func, return_value, call;                 // of _vexon_call_info_t
};

constexpr Layout kLayouts[] = {
    {32, 8, 8, 48, 56, 88, 120, 40, 48, 56, 16, 80, 116, 120},  // libstdc++, 64 bits
    {24, 8, 8, 40, 48, 72, 96, 32, 40, 48, 16, 64, 92, 96},     // libc++, 64 bits
    {24, 4, 8, 40, 48, 72, 96, 28, 32, 36, 16, 64, 92, 96},     // libstdc++, 32 bits
    {12, 4, 8, 32, 40, 52, 64, 16, 20, 24, 16, 40, 56, 60},     // libc++, 32 bits
    {24, 4, 4, 40, 48, 72, 96, 28, 32, 36, 16, 64, 92, 96},     // libstdc++, 32-bit x86
    {12, 4, 4, 28, 36, 48, 60, 16, 20, 24, 16, 40, 56, 60},     // libc++, 32-bit x86
};

constexpr Layout layout_here() {
    for (const Layout& layout : kLayouts) {
        if (layout.text == sizeof(std::string) && layout.pointer == sizeof(void*) &&
            layout.alignment == offsetof(Aligned, second)) {
            return layout;
        }
    }
    return {};
}

constexpr Layout kHere = layout_here();
static_assert(kHere.text != 0, "the layout of public records is not fixed for this platform yet");

static_assert(offsetof(vexa_req_t, opcode) == 4 && offsetof(vexa_req_t, subsys_id) == 8 &&
              offsetof(vexa_req_t, session_id) == 12 && offsetof(vexa_req_t, permission) == 16);
static_assert(offsetof(vexa_req_t, permission_status) == kHere.permission_status);
static_assert(offsetof(vexa_req_t, state) == kHere.state);
static_assert(offsetof(vexa_req_t, package) == kHere.package);
static_assert(sizeof(vexa_req_t) == kHere.notification);

static_assert(offsetof(vexon_func_call_info_t, num_of_args) == sizeof(std::string));
static_assert(offsetof(vexon_func_call_info_t, value_queue) == kHere.value_queue);
static_assert(offsetof(vexon_func_call_info_t, type_queue) == kHere.type_queue);
static_assert(sizeof(vexon_func_call_info_t) == kHere.arguments);

static_assert(offsetof(_vexon_call_info_t, transac_id) == 4);
static_assert(offsetof(_vexon_call_info_t, subsys_id) == 12);
static_assert(offsetof(_vexon_call_info_t, opcode) == kHere.opcode);
static_assert(offsetof(_vexon_call_info_t, func) == kHere.func);
static_assert(offsetof(_vexon_call_info_t, return_value) == kHere.return_value);
static_assert(sizeof(_vexon_call_info_t) == kHere.call);

static_assert(sizeof(vexa_status_t) == 4 && sizeof(vexon_data_type_t) == 4 &&
              sizeof(vexa_receive_end_t) == 4);
static_assert(sizeof(ParamValues<std::int64_t>) == 8, "64 bits on both data models");

}  // namespace
