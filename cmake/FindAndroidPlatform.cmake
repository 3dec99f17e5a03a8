# SPDX-License-Identifier: Apache-2.0
# Finds libraries of the Android platform, by components. They come without pkg-config or CMake
# files: on a device from the platform's sysroot, on Debian from android-liblog-dev and
# android-libbase-dev, which are outside of the default search paths.
#
#   Android::log     liblog    (headers <android/log.h>)
#   Android::base    libbase   (headers <android-base/properties.h>)
#   Android::cutils  libcutils (headers <cutils/properties.h>), on a device only
#
# AndroidPlatform_RUNTIME_DIR is where the dynamic loader finds them on the machine that runs the
# result, empty where it needs no telling.

set(_header_log android/log.h)
set(_header_base android-base/properties.h)
set(_header_cutils cutils/properties.h)
set(_required "")
foreach(_name IN LISTS AndroidPlatform_FIND_COMPONENTS)
    find_path(AndroidPlatform_${_name}_INCLUDE_DIR ${_header_${_name}} PATH_SUFFIXES android)
    find_library(AndroidPlatform_${_name}_LIBRARY ${_name} PATH_SUFFIXES android)
    mark_as_advanced(AndroidPlatform_${_name}_INCLUDE_DIR AndroidPlatform_${_name}_LIBRARY)
    list(APPEND _required AndroidPlatform_${_name}_LIBRARY AndroidPlatform_${_name}_INCLUDE_DIR)
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidPlatform REQUIRED_VARS ${_required}
    REASON_FAILURE_MESSAGE "on Debian, install android-liblog-dev and android-libbase-dev")

if(AndroidPlatform_FOUND)
    foreach(_name IN LISTS AndroidPlatform_FIND_COMPONENTS)
        if(NOT TARGET Android::${_name})
            add_library(Android::${_name} UNKNOWN IMPORTED)
            set_target_properties(Android::${_name} PROPERTIES
                IMPORTED_LOCATION "${AndroidPlatform_${_name}_LIBRARY}"
                INTERFACE_INCLUDE_DIRECTORIES "${AndroidPlatform_${_name}_INCLUDE_DIR}")
        endif()
    endforeach()
    set(AndroidPlatform_RUNTIME_DIR "")
    if(NOT ANDROID)
        get_filename_component(AndroidPlatform_RUNTIME_DIR
            "${AndroidPlatform_log_LIBRARY}" DIRECTORY)
        string(REGEX REPLACE "^${CMAKE_SYSROOT}/" "/"
            AndroidPlatform_RUNTIME_DIR "${AndroidPlatform_RUNTIME_DIR}")
    endif()
endif()
