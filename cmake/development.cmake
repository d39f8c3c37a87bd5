# What the author of a plug-in needs: the headers, and how pkg-config and CMake find them. A box does not, so it is
# installed only when asked for: cmake --install BUILD --component development
include(CMakePackageConfigHelpers)
set(config ${CMAKE_INSTALL_DATADIR}/cmake/KeelPlatform)
configure_file(cmake/keel-platform.pc.in keel-platform.pc @ONLY)
configure_file(cmake/KeelPlatformConfig.cmake.in KeelPlatformConfig.cmake @ONLY)
write_basic_package_version_file(KeelPlatformConfigVersion.cmake COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)

install(DIRECTORY platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/keel COMPONENT development EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_BINARY_DIR}/keel-platform.pc DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig
        COMPONENT development EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_BINARY_DIR}/KeelPlatformConfig.cmake ${CMAKE_BINARY_DIR}/KeelPlatformConfigVersion.cmake
        DESTINATION ${config} COMPONENT development EXCLUDE_FROM_ALL)
