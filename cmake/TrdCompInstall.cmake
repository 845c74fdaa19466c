include(CMakePackageConfigHelpers)

install(DIRECTORY interface/include/trdcomp/ codec2008/include/trdcomp/ ${TRDCOMP_GENERATED}/trdcomp/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/trdcomp COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp" PATTERN "*.inc")
# Components: runtime (the shared libraries), development (headers, link
# names, static libraries, CMake package, pkg-config), tool, python.
install(TARGETS KXPfdk KXPfdk_static trdcomp trdcomp_static
        EXPORT TrdCompTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(EXPORT TrdCompTargets NAMESPACE TrdComp:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp COMPONENT development)

configure_package_config_file(cmake/TrdCompConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TrdCompConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TrdCompConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TrdCompConfig.cmake ${PROJECT_BINARY_DIR}/TrdCompConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp COMPONENT development)

configure_file(cmake/trdcomp.pc.in ${PROJECT_BINARY_DIR}/trdcomp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/trdcomp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
