# What ships: the libraries with their headers, the tools, and a package for find_package(corvane).
include(CMakePackageConfigHelpers)

# corvane_ship(TARGET FOLDER): the target's public headers are those below FOLDER. Its users find
# them, here and installed, and each is checked to compile alone by the target
# all_verify_interface_header_sets.
function(corvane_ship target folder)
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${folder}/*.h)
    target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${folder} FILES ${headers})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        VERIFY_INTERFACE_HEADER_SETS ON)
    install(TARGETS ${target} EXPORT corvane FILE_SET HEADERS)
endfunction()

corvane_ship(corvane_platform ${PROJECT_SOURCE_DIR}/platform/include)
corvane_ship(corvane_v4l2_linux ${PROJECT_SOURCE_DIR}/include)
corvane_ship(corvane_sim ${PROJECT_SOURCE_DIR}/sim/include)
corvane_ship(corvane_client ${PROJECT_SOURCE_DIR}/client/include)
install(TARGETS corvane-stream corvane-info)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
install(EXPORT corvane NAMESPACE corvane:: FILE corvaneTargets.cmake DESTINATION ${package})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/corvaneConfig.cmake.in
    ${PROJECT_BINARY_DIR}/corvaneConfig.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corvaneConfig.cmake
    ${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake DESTINATION ${package})
