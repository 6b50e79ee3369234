# Debian packages (cpack -G DEB in a build tree): the runtime library, the
# development files, and the tools with the sync manager's systemd unit.
# A build with the aarch64 toolchain produces arm64 packages.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(KORVANE_DEB_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(KORVANE_DEB_ARCHITECTURE amd64)
else()
  set(KORVANE_DEB_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvane)
set(CPACK_PACKAGE_VENDOR "Korvane")
set(CPACK_PACKAGE_CONTACT "Korvane maintainers <maintainers@korvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KORVANE_DEB_ARCHITECTURE})
# dpkg-shlibdeps cannot read foreign binaries, so the dependencies are stated.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkorvane)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Korvane platform library (libKorvane.so)")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkorvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libkorvane (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Korvane headers, CMake package and pkg-config file")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME korvane-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkorvane (= ${PROJECT_VERSION})")
# The service's group is made on installation (cpack names the control file
# after the file).
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/tools/package/postinst)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Korvane sync manager service (korvane-syncd) and korvane-shm")

include(CPack)
