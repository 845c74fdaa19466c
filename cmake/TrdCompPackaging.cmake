# Debian packages of an installed build: `cpack -G DEB` in the build tree gives
#   libtrdcomp<MAJOR>  the shared libraries trdcomp and KXPfdk
#   libtrdcomp-dev     headers, link names, static libraries, CMake package, pkg-config
#   trdcomp            the command-line tool
#   python3-trdcomp    the Python module (when it is built)
#   wireshark-trdcomp  the Wireshark plugin (when it is built)
# each depending on the runtime package of the same version where it needs it.
set(CPACK_PACKAGE_NAME trdcomp)
set(CPACK_PACKAGE_VENDOR "the trdcomp developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "the trdcomp developers")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# Dependencies on the system's libraries from dpkg-shlibdeps. The tool and the
# module also need the runtime package's libraries: dpkg-shlibdeps finds them
# in the build tree, and the component dependencies name the package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL runtime development)
if(TRDCOMP_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
if(TRDCOMP_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(TRDCOMP_WIRESHARK)
  list(APPEND CPACK_COMPONENTS_ALL wireshark)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtrdcomp${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: shared libraries trdcomp and KXPfdk")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtrdcomp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "${PROJECT_DESCRIPTION}: headers, static libraries, CMake package TrdComp and pkg-config file")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME trdcomp)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "${PROJECT_DESCRIPTION}: the trdcomp tool (decode, encode, catalogue, demo)")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-trdcomp)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "${PROJECT_DESCRIPTION}: the Python module trdcomp")
if(TRDCOMP_PYTHON)
  # The module is built for one Python version.
  math(EXPR next_minor "${Python_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${Python_VERSION_MAJOR}.${Python_VERSION_MINOR}), python3 (<< ${Python_VERSION_MAJOR}.${next_minor}), python3-numpy")
endif()

set(CPACK_DEBIAN_WIRESHARK_PACKAGE_NAME wireshark-trdcomp)
set(CPACK_DEBIAN_WIRESHARK_PACKAGE_SECTION net)
set(CPACK_COMPONENT_WIRESHARK_DEPENDS runtime)
set(CPACK_COMPONENT_WIRESHARK_DESCRIPTION "${PROJECT_DESCRIPTION}: the Wireshark and tshark plugin (dissector trdcomp)")
if(TRDCOMP_WIRESHARK)
  # A plugin is loaded only by the Wireshark release series it was built for.
  math(EXPR next_minor "${Wireshark_MINOR_VERSION} + 1")
  set(CPACK_DEBIAN_WIRESHARK_PACKAGE_DEPENDS
      "wireshark-common (>= ${Wireshark_MAJOR_VERSION}.${Wireshark_MINOR_VERSION}), wireshark-common (<< ${Wireshark_MAJOR_VERSION}.${next_minor})")
endif()

include(CPack)
