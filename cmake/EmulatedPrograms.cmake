# SPDX-License-Identifier: Apache-2.0
# vexon_runnable(VARIABLE TARGET [PRIVATE_DEV])
# Sets VARIABLE to a path by which a test can execute the program TARGET: its own path, or where
# programs are built for another machine, that of a script that runs it in the emulator.
# PRIVATE_DEV: TARGET is vexon-private-dev, and what it executes needs the emulator too.
function(vexon_runnable variable target)
    if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
        set(${variable} "$<TARGET_FILE:${target}>" PARENT_SCOPE)
        return()
    endif()
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" emulator)
    set(before "exec")
    set(command "'${emulator}' '$<TARGET_FILE:${target}>'")
    if(ARGN STREQUAL "PRIVATE_DEV")
        # An emulator has threads of its own, so nothing in it can make a user namespace.
        string(CONCAT before "namespace='unshare --user --map-current-user --keep-caps'\n"
            "unshare --mount true 2>/dev/null && namespace=\nexec $namespace")
        string(APPEND command " '${emulator}'")
    endif()
    set(script "${PROJECT_BINARY_DIR}/emulated/${target}")
    file(GENERATE OUTPUT "${script}" CONTENT "#!/bin/sh\n${before} ${command} \"$@\"\n"
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
            WORLD_READ WORLD_EXECUTE)
    set(${variable} "${script}" PARENT_SCOPE)
endfunction()
