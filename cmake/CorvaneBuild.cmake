# SPDX-License-Identifier: Apache-2.0
# What every target of the project shares: language level, warnings, visibility, sanitizers.
include(GNUInstallDirs)

set(CMAKE_COMPILE_WARNING_AS_ERROR ${CORVANE_WERROR})
if(NOT CMAKE_CXX_STANDARD)
    set(CMAKE_CXX_STANDARD 20)
endif()
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

# What is installed finds its libraries beside it, wherever the whole lies.
file(RELATIVE_PATH library_folder ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/${library_folder}")

set(CORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")

find_package(Threads REQUIRED)

add_library(corvane_build INTERFACE)
target_compile_options(corvane_build INTERFACE -Wall -Wextra -Wpedantic -Wshadow)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Beta: the order of locks.
    target_compile_options(corvane_build INTERFACE -Wthread-safety -Wthread-safety-beta)
else()
    # g++ 12 sees overlapping copies where strings are added up (GCC bug 105651).
    target_compile_options(corvane_build INTERFACE -Wno-restrict)
endif()
if(CORVANE_SANITIZE)
    target_compile_options(corvane_build INTERFACE -fsanitize=${CORVANE_SANITIZE}
                           -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(corvane_build INTERFACE -fsanitize=${CORVANE_SANITIZE})
endif()

# corvane_header_package(NAME TARGET FOLDER): finds a package of headers alone, TARGET, whose headers
# lie in /usr/include/FOLDER. They suit every processor, but a cross build must not have the rest of
# /usr/include.
function(corvane_header_package name target folder)
    find_package(${name} REQUIRED)
    if(CMAKE_CROSSCOMPILING)
        file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
        file(CREATE_LINK /usr/include/${folder} ${PROJECT_BINARY_DIR}/headers/${folder} SYMBOLIC)
        set_target_properties(${target} PROPERTIES
            INTERFACE_INCLUDE_DIRECTORIES ${PROJECT_BINARY_DIR}/headers)
    endif()
endfunction()

# For builds that ask whether another compiler or processor takes the code: half the time. Not for those
# that one works with, as a header that leans on another's includes goes unseen; and with optimisation
# g++ warns of what it then no longer knows to be the C++ library's.
option(CORVANE_PCH "Precompile the headers of the C++ library, of GoogleTest for tests" OFF)

# corvane_precompile(NAME KIND HEADERS...): the HEADERS, compiled once for all targets of that KIND, a
# target that is made here of the options that it shares with them: NAME is one of them.
function(corvane_precompile name kind)
    if(NOT CORVANE_PCH)
        return()
    endif()
    if(NOT TARGET ${kind})
        set(empty ${PROJECT_BINARY_DIR}/empty.cpp)
        file(TOUCH ${empty})
        get_target_property(type ${name} TYPE)
        if(type STREQUAL "EXECUTABLE")
            add_executable(${kind} EXCLUDE_FROM_ALL ${empty})
        else()
            add_library(${kind} OBJECT EXCLUDE_FROM_ALL ${empty})
        endif()
        get_target_property(libraries ${name} LINK_LIBRARIES)
        get_target_property(options ${name} COMPILE_OPTIONS)
        target_link_libraries(${kind} PRIVATE ${libraries})
        target_compile_options(${kind} PRIVATE ${options})
        target_precompile_headers(${kind} PRIVATE ${ARGN})
    endif()
    target_precompile_headers(${name} REUSE_FROM ${kind})
endfunction()

set(CORVANE_SOVERSION ${PROJECT_VERSION_MAJOR})
if(CORVANE_SOVERSION EQUAL 0)
    string(APPEND CORVANE_SOVERSION .${PROJECT_VERSION_MINOR})
endif()

# corvane_library(NAME alias SOURCES...): one shared library of the project, lib<NAME>.so, with the
# alias corvane::<alias>.
function(corvane_library name alias)
    add_library(${name} SHARED ${ARGN})
    add_library(corvane::${alias} ALIAS ${name})
    target_link_libraries(${name} PRIVATE corvane_build PUBLIC Threads::Threads)
    target_compile_features(${name} PUBLIC cxx_std_20)
    # Nobody replaces a function of ours from outside: calls within a library go straight.
    target_compile_options(${name} PRIVATE -fno-semantic-interposition)
    target_link_options(${name} PRIVATE -Wl,-Bsymbolic-functions)
    set_target_properties(${name} PROPERTIES
        EXPORT_NAME ${alias}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${CORVANE_SOVERSION}
        VERIFY_INTERFACE_HEADER_SETS ON)
    corvane_precompile(${name} corvane_headers_std <algorithm> <atomic> <chrono> <condition_variable>
        <functional> <map> <memory> <mutex> <string> <thread> <unordered_map> <vector>)
endfunction()

# corvane_headers(NAME FOLDER [COMPONENT]): the library's public headers, all those below FOLDER; its
# users find them there, or where they are installed. The target all_verify_interface_header_sets
# checks that each one compiles alone. The library is installed with the components library and
# development, or whole with the one that is named.
function(corvane_headers name folder)
    cmake_path(ABSOLUTE_PATH folder NORMALIZE)
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${folder}/*.h)
    target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${folder} FILES ${headers})
    if(CORVANE_INSTALL)
        set(export corvane)
        set(runtime library)
        set(development development)
        if(ARGC GREATER 2)
            set(export corvane_${ARGV2})
            set(runtime ${ARGV2})
            set(development ${ARGV2})
        endif()
        install(TARGETS ${name} EXPORT ${export}
            LIBRARY COMPONENT ${runtime} NAMELINK_COMPONENT ${development}
            FILE_SET HEADERS COMPONENT ${development})
    endif()
endfunction()

# corvane_tool(NAME SOURCES...): a program for users, installed with the component tools; the caller
# links the libraries it needs.
function(corvane_tool name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE corvane_build)
    if(CORVANE_INSTALL)
        install(TARGETS ${name} COMPONENT tools)
    endif()
endfunction()
