# The package for find_package(corvane): the targets corvane::v4l2_linux, platform, client and sim.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
install(EXPORT corvane NAMESPACE corvane:: FILE corvaneTargets.cmake DESTINATION ${package})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/corvaneConfig.cmake.in
    ${PROJECT_BINARY_DIR}/corvaneConfig.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corvaneConfig.cmake
    ${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake DESTINATION ${package})
