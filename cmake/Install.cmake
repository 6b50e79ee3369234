# Installation: the library, the public headers, a CMake package
# (find_package(Korvane) with the imported target Korvane::Korvane) and a
# pkg-config file (pkg-config --cflags --libs korvane).
include(CMakePackageConfigHelpers)

install(TARGETS Korvane EXPORT KorvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/korvane
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(KORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
install(EXPORT KorvaneTargets NAMESPACE Korvane:: DESTINATION ${KORVANE_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KorvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KorvaneConfig.cmake INSTALL_DESTINATION ${KORVANE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KorvaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KorvaneConfig.cmake ${PROJECT_BINARY_DIR}/KorvaneConfigVersion.cmake
  DESTINATION ${KORVANE_CMAKE_DIR} COMPONENT development)

# The pkg-config file finds its prefix from its own location, so the tree
# works wherever it is installed (cmake --install --prefix, packages).
file(RELATIVE_PATH KORVANE_PC_PREFIX_FROM_PCDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
set(KORVANE_PC_PREFIX "\${pcfiledir}/${KORVANE_PC_PREFIX_FROM_PCDIR}")
set(KORVANE_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(KORVANE_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/korvane.pc.in ${PROJECT_BINARY_DIR}/korvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/korvane.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
