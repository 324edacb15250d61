# `make package`: one Debian package (CPack's DEB generator) with everything a
# user installs: the shared library, its headers, the CMake and pkg-config
# files, ocpctl with its manual page and bash completion, and the Python
# module where Debian's python3 looks. Configure with
# -DCMAKE_INSTALL_PREFIX=/usr so that the library lands in the multiarch
# folder and the module in /usr/lib/python3/dist-packages.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ocp-api)
set(CPACK_PACKAGE_VENDOR "the ocp_api developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ocp_api developers <ocp-api@lists.example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "drive servo actuators on a CAN bus (library, ocpctl, Python)")
# The summary above becomes the first line; this text the extended description.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "ocp_api turns method calls (start and stop, control modes and setpoints,
streamed feedback, parameters, configuration storage) into command frames
for servo actuators on a CAN or CAN-FD bus, and the replies into values.

This package holds the static library with its headers, CMake and
pkg-config files, the ocpctl command-line tool with its manual page and
bash completion, and the Python module (mirror classes, an asyncio layer
and a python-can bridge) for Debian's python3.")
# Dependencies from the binaries themselves (dpkg-shlibdeps).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(OCP_API_BUILD_PYTHON)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  # The extension is built for this interpreter's version only.
  math(EXPR next_minor "${Python3_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
      "python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}), python3 (<< ${Python3_VERSION_MAJOR}.${next_minor})")
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-can")
endif()

# Debian's documentation files: the copyright and a compressed changelog
# (changelog.Debian.gz: the package has a Debian revision).
set(debian_doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_PACKAGE_NAME})
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian @ONLY)
find_program(GZIP_PROGRAM gzip REQUIRED)
add_custom_command(
  OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian.gz
  COMMAND ${GZIP_PROGRAM} -9nf -k ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian
  DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian
  VERBATIM)
add_custom_target(ocp_api_debian_changelog ALL DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian.gz)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian.gz
        DESTINATION ${debian_doc_dir} COMPONENT debian EXCLUDE_FROM_ALL)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};ALL;/")
# ALL leaves out EXCLUDE_FROM_ALL components; the Debian files go in by name.
list(APPEND CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};debian;/")

include(CPack)
