include(CMakePackageConfigHelpers)

install(DIRECTORY interface/include/trdcomp/ codec2008/include/trdcomp/ ${TRDCOMP_GENERATED}/trdcomp/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/trdcomp
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp" PATTERN "*.inc")
install(TARGETS KXPfdk KXPfdk_static trdcomp trdcomp_static
        EXPORT TrdCompTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT TrdCompTargets NAMESPACE TrdComp:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp)

configure_package_config_file(cmake/TrdCompConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TrdCompConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TrdCompConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TrdCompConfig.cmake ${PROJECT_BINARY_DIR}/TrdCompConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TrdComp)

configure_file(cmake/trdcomp.pc.in ${PROJECT_BINARY_DIR}/trdcomp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/trdcomp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
