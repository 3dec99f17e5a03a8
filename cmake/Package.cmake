# The target `package`: two Debian packages, one for each component of Install.cmake. Configure
# with the preset `package`, so that the files are meant for /usr.

if(ANDROID)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_PACKAGE_VENDOR vexon)
if(NOT CPACK_PACKAGE_CONTACT)
    set(CPACK_PACKAGE_CONTACT "Maintainers of libvexon2_0 <root@localhost>")
endif()
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvexon2-0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}
Services that are linked with the library offer functions to a Manager over
a local socket.

Comes with vexon-manager, which plays the Manager on a developer's machine,
and with vexon-private-dev, which makes the place of its socket without
privileges.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvexon2-0-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvexon2-0 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION} (development files)
The headers, and what CMake and pkg-config need to find the library.")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each description has its own

# Tells dpkg-shlibdeps on which package a packaged service depends: the soname alone, which has no
# version, does not.
file(STRINGS tests/exported_symbols.txt symbols REGEX "^[^#]")
list(TRANSFORM symbols REPLACE "(.+)" " \\1@Base ${PROJECT_VERSION}")
list(JOIN symbols "\n" symbols)
set(control "${PROJECT_BINARY_DIR}/debian")
file(WRITE "${control}/symbols" "libvexon2_0.so libvexon2-0 #MINVER#\n${symbols}\n")
file(WRITE "${control}/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${control}/symbols" "${control}/triggers")

if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    install(FILES packaging/lintian-overrides RENAME libvexon2-0
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT runtime)
    execute_process(COMMAND gzip -9nc "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
        OUTPUT_FILE "${control}/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
    foreach(component RUNTIME DEV)
        string(TOLOWER ${component} name)
        install(FILES "${control}/changelog.gz" COMPONENT ${name}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
    endforeach()
endif()

include(CPack)
