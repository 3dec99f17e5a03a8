# SPDX-License-Identifier: Apache-2.0
# Finds jsoncpp as JsonCpp::JsonCpp: by its own CMake files, which Debian has, or in a sysroot that
# has only the library and its headers.

find_package(jsoncpp QUIET CONFIG)
if(TARGET JsonCpp::JsonCpp)
    set(jsoncpp_INCLUDE_DIR "(of its own CMake files)")
    set(jsoncpp_LIBRARY JsonCpp::JsonCpp)
else()
    find_path(jsoncpp_INCLUDE_DIR json/json.h PATH_SUFFIXES jsoncpp)
    find_library(jsoncpp_LIBRARY jsoncpp)
    mark_as_advanced(jsoncpp_INCLUDE_DIR jsoncpp_LIBRARY)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(jsoncpp REQUIRED_VARS jsoncpp_LIBRARY jsoncpp_INCLUDE_DIR)

if(jsoncpp_FOUND AND NOT TARGET JsonCpp::JsonCpp)
    add_library(JsonCpp::JsonCpp UNKNOWN IMPORTED)
    set_target_properties(JsonCpp::JsonCpp PROPERTIES
        IMPORTED_LOCATION "${jsoncpp_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${jsoncpp_INCLUDE_DIR}")
endif()
