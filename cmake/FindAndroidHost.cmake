# Finds the Android log and base libraries that Debian packages as android-liblog-dev and
# android-libbase-dev. They come without pkg-config or CMake files and live outside the default
# search paths, so the imported targets also carry the run path.
#
#   Android::log   liblog  (headers <android/log.h>)
#   Android::base  libbase (headers <android-base/properties.h>)

find_path(AndroidHost_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
foreach(name log base)
    find_library(AndroidHost_${name}_LIBRARY ${name} PATH_SUFFIXES android)
    mark_as_advanced(AndroidHost_${name}_LIBRARY)
endforeach()
mark_as_advanced(AndroidHost_INCLUDE_DIR)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidHost
    REQUIRED_VARS AndroidHost_log_LIBRARY AndroidHost_base_LIBRARY AndroidHost_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "install android-liblog-dev and android-libbase-dev")

if(AndroidHost_FOUND)
    get_filename_component(AndroidHost_LIBRARY_DIR "${AndroidHost_log_LIBRARY}" DIRECTORY)
    foreach(name log base)
        if(NOT TARGET Android::${name})
            add_library(Android::${name} UNKNOWN IMPORTED)
            set_target_properties(Android::${name} PROPERTIES
                IMPORTED_LOCATION "${AndroidHost_${name}_LIBRARY}"
                INTERFACE_INCLUDE_DIRECTORIES "${AndroidHost_INCLUDE_DIR}"
                INTERFACE_LINK_OPTIONS "LINKER:-rpath,${AndroidHost_LIBRARY_DIR}")
        endif()
    endforeach()
endif()
