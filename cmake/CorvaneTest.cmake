# SPDX-License-Identifier: Apache-2.0
# What the folders of tests share. How long a test may take is the runner's to say (the presets do, and
# ctest --timeout before them): a property would overrule it.
# Debian has GoogleTest built for its own C++ library and processor only, and as sources.
set(CORVANE_GTEST_SOURCE "" CACHE PATH "GoogleTest's sources, to build it like the project")
if(CORVANE_GTEST_SOURCE)
    enable_language(C)
    set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
    set(INSTALL_GTEST OFF)
    add_subdirectory(${CORVANE_GTEST_SOURCE} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    set(CMAKE_COMPILE_WARNING_AS_ERROR ${CORVANE_WERROR})
else()
    find_package(GTest REQUIRED)
endif()
if(NOT CMAKE_CROSSCOMPILING)
    find_program(QEMU qemu-system-x86_64)
endif()
if(NOT QEMU)
    message(STATUS "no tests on a real kernel: qemu-system-x86_64 is missing")
endif()
include(GoogleTest)

# corvane_test_program(NAME SOURCES...): a program of tests; the caller links the libraries under test.
# It is compiled without optimisation where that is not the point of the build: the compiler takes less
# than half the time, the test no longer.
function(corvane_test_program name)
    add_executable(${name} ${ARGN})
    target_compile_options(${name} PRIVATE $<$<NOT:$<CONFIG:Release>>:-O0>)
    target_link_libraries(${name} PRIVATE corvane_build corvane_test_support GTest::gtest_main)
    corvane_precompile(${name} corvane_headers_gmock <gmock/gmock.h> <gtest/gtest.h>
        <condition_variable> <mutex> <thread> <unordered_map>)
endfunction()

# corvane_test(NAME SOURCES...): the same, whose tests run on this machine.
function(corvane_test name)
    corvane_test_program(${ARGV})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
endfunction()

# corvane_vm_test(NAME MODULE [OPTION...] -- COMMAND...): a test of the label vm, in a guest with the
# driver of that name; the guest's runner limits its time. Not there without QEMU, and not on the
# virtual engine's driver where that is not built.
function(corvane_vm_test name module)
    if(NOT QEMU OR module STREQUAL vengine AND NOT TARGET vengine_module)
        return()
    endif()
    if(module STREQUAL vengine)
        set(module ${PROJECT_BINARY_DIR}/driver/vengine.ko)
    endif()
    add_test(NAME vm.${name} WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
        COMMAND ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../tools/vm/run --module ${module} ${ARGN})
    set_tests_properties(vm.${name} PROPERTIES LABELS vm TIMEOUT 400)
endfunction()
