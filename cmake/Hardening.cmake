# SPDX-License-Identifier: Apache-2.0
# vexon_hardening: what makes faults in memory end a process rather than be of use to an attacker.
# Compilers and processors have not all of it. Sanitizers have their own.

option(VEXON_HARDENING "Harden what is built" ON)

include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

add_library(vexon_hardening INTERFACE)
if(NOT VEXON_HARDENING OR VEXON_SANITIZE)
    return()
endif()

# Tried with -Werror, since clang only warns of what the processor has not.
function(vexon_harden flag)
    string(MAKE_C_IDENTIFIER "VEXON_HAS${flag}" has)
    set(CMAKE_REQUIRED_FLAGS -Werror)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
        target_compile_options(vexon_hardening INTERFACE ${flag})
    endif()
endfunction()

vexon_harden(-fstack-protector-strong)
vexon_harden(-fstack-clash-protection)
vexon_harden(-fcf-protection)
vexon_harden(-mbranch-protection=standard)
# Without optimisation the C library warns that it can check nothing.
target_compile_options(vexon_hardening INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
target_link_options(vexon_hardening INTERFACE LINKER:-z,relro LINKER:-z,now)
