# Installation: headers, libraries, CMake package and pkg-config file. Both packages find their prefix at run time, so an
# installed tree can be moved.
include(CMakePackageConfigHelpers)

install(TARGETS memmanager memmanager_static memmanager_platform EXPORT memmanager_targets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/memmanager DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/memmanager)
install(EXPORT memmanager_targets NAMESPACE memmanager:: FILE memmanager-targets.cmake DESTINATION ${package_dir})
configure_package_config_file(cmake/memmanager-config.cmake.in ${PROJECT_BINARY_DIR}/memmanager-config.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/memmanager-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/memmanager-config.cmake ${PROJECT_BINARY_DIR}/memmanager-config-version.cmake
    DESTINATION ${package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig_dir} /)
configure_file(cmake/memmanager.pc.in ${PROJECT_BINARY_DIR}/memmanager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/memmanager.pc DESTINATION ${pkgconfig_dir})
