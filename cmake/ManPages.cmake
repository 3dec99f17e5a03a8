# SPDX-License-Identifier: Apache-2.0
# vexon_man_page(TARGET) makes and installs the manual page of a program of this tree. The program
# tells its own usage, so it has to run on this machine.

find_program(VEXON_HELP2MAN help2man)
mark_as_advanced(VEXON_HELP2MAN)

if(CMAKE_CROSSCOMPILING OR NOT VEXON_HELP2MAN)
    message(STATUS "No manual pages: they need help2man and programs that run here")
    function(vexon_man_page)
    endfunction()
    return()
endif()

function(vexon_man_page target)
    set(script "${PROJECT_SOURCE_DIR}/packaging/make-man-page")
    set(page "${PROJECT_BINARY_DIR}/${target}.1.gz")
    add_custom_command(OUTPUT "${page}" VERBATIM
        COMMAND "${script}" "$<TARGET_FILE:${target}>" ${PROJECT_VERSION} "${page}"
        DEPENDS ${target} "${script}" "${PROJECT_SOURCE_DIR}/packaging/vexon-manager.h2m")
    add_custom_target(${target}-man-page ALL DEPENDS "${page}")
    install(FILES "${page}" DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
