# SPDX-License-Identifier: Apache-2.0
# The target AndroidSystem: liblog, libbase, libcutils and libutils of Android, from its tree or from
# Debian's packages of them.
include(FindPackageHandleStandardArgs)

find_path(AndroidSystem_INCLUDE_DIR utils/Printer.h PATH_SUFFIXES android)
set(libraries)
foreach(name IN ITEMS log base cutils utils)
    find_library(AndroidSystem_${name} ${name} PATH_SUFFIXES android
        PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
    list(APPEND libraries AndroidSystem_${name})
endforeach()
find_package_handle_standard_args(AndroidSystem REQUIRED_VARS AndroidSystem_INCLUDE_DIR ${libraries})
mark_as_advanced(AndroidSystem_INCLUDE_DIR ${libraries})

if(AndroidSystem_FOUND AND NOT TARGET AndroidSystem)
    add_library(AndroidSystem INTERFACE IMPORTED)
    target_include_directories(AndroidSystem INTERFACE ${AndroidSystem_INCLUDE_DIR})
    foreach(library IN LISTS libraries)
        target_link_libraries(AndroidSystem INTERFACE ${${library}})
    endforeach()
endif()
