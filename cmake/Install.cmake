# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` copies, in three components: `runtime` to run services, `dev` to build them
# and `tools` to try them. debian/ makes packages of it.
#
# The library has no version beside the one in its name: a service that is linked with it names
# libvexon2_0.so, as on a device. An incompatible interface gets another name.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(vexon2_0 PROPERTIES INSTALL_RPATH "${AndroidPlatform_RUNTIME_DIR}")
install(TARGETS vexon2_0 EXPORT vexonTargets
    LIBRARY COMPONENT runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/ TYPE INCLUDE COMPONENT dev FILES_MATCHING PATTERN "*.h")

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vexon)
install(EXPORT vexonTargets NAMESPACE vexon:: DESTINATION ${cmake_dir} COMPONENT dev)
configure_package_config_file(cmake/vexonConfig.cmake.in vexonConfig.cmake
    INSTALL_DESTINATION ${cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(vexonConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/vexonConfig.cmake"
    "${PROJECT_BINARY_DIR}/vexonConfigVersion.cmake"
    DESTINATION ${cmake_dir} COMPONENT dev)

# An absolute directory stays where it is; all else moves with the pkg-config file.
function(vexon_pkg_config_path variable directory)
    if(NOT IS_ABSOLUTE "${directory}")
        string(PREPEND directory "\${prefix}/")
    endif()
    set(${variable} "${directory}" PARENT_SCOPE)
endfunction()

vexon_pkg_config_path(pc_libdir "${CMAKE_INSTALL_LIBDIR}")
vexon_pkg_config_path(pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
configure_file(cmake/vexon2_0.pc.in vexon2_0.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/vexon2_0.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(ANDROID)
    return()
endif()

install(TARGETS vexon-manager vexon-private-dev RUNTIME COMPONENT tools)
include(ManPages)
vexon_man_page(vexon-manager)
vexon_man_page(vexon-private-dev)
install(FILES packaging/vexon-manager.bash RENAME vexon-manager
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES packaging/vexon-private-dev.bash RENAME vexon-private-dev
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
