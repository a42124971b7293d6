# SPDX-License-Identifier: Apache-2.0
# What others find us by: the package for find_package(corvane), with the targets corvane::v4l2_linux,
# platform, client and, where the component simulation is installed, sim; and the same for pkg-config.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/corvaneConfig.cmake.in
    ${PROJECT_BINARY_DIR}/corvaneConfig.cmake INSTALL_DESTINATION ${package})
set(compatible SameMajorVersion)
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatible SameMinorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    COMPATIBILITY ${compatible})
install(FILES ${PROJECT_BINARY_DIR}/corvaneConfig.cmake
    ${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    DESTINATION ${package} COMPONENT development)
install(EXPORT corvane NAMESPACE corvane:: FILE corvaneTargets.cmake
    DESTINATION ${package} COMPONENT development)

# corvane_pkg_config(PACKAGE TARGET COMPONENT REQUIRED DESCRIPTION): PACKAGE.pc, which finds headers and
# libraries from where it lies itself.
function(corvane_pkg_config package target component required description)
    set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH prefix ${CMAKE_INSTALL_PREFIX}/${folder} ${CMAKE_INSTALL_PREFIX})
    set(flags "-I\${includedir}")
    # The definitions that a build of this type asks of its users.
    get_target_property(definitions corvane_platform INTERFACE_COMPILE_DEFINITIONS)
    if(definitions)
        list(TRANSFORM definitions PREPEND -D)
        list(JOIN definitions " " definitions)
        string(APPEND flags " ${definitions}")
    endif()
    configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/corvane.pc.in
        ${PROJECT_BINARY_DIR}/pkgconfig/${package}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${package}.pc
        DESTINATION ${folder} COMPONENT ${component})
endfunction()

corvane_pkg_config(corvane-platform corvane_platform development ""
    "Corvane's layer over the system: threads, logs, traces")
corvane_pkg_config(corvane corvane_v4l2_linux development corvane-platform
    "Image streaming over V4L2 and the Media Request API")
corvane_pkg_config(corvane-client corvane_client development corvane
    "What clients of Corvane share: sessions, buffers, an event monitor")
if(CORVANE_SIM)
    install(EXPORT corvane_simulation NAMESPACE corvane:: FILE corvaneSimulationTargets.cmake
        DESTINATION ${package} COMPONENT simulation)
    corvane_pkg_config(corvane-sim corvane_sim simulation corvane-platform
        "Corvane's virtual engine: a device in the process")
    corvane_pkg_config(corvane-replay corvane_replay simulation corvane-platform
        "Corvane's records of a device's calls, read and answered from")
endif()
