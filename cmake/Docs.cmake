# The `docs` target: an HTML reference built from the public headers' comments
# with Doxygen, into <build>/docs/html (entry page index.html). With
# KORVANE_DOCS_STRICT (as in CI) an undocumented public name fails the build.
option(KORVANE_DOCS_STRICT "Fail the docs target on any Doxygen warning" OFF)
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(KORVANE_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
  if(KORVANE_DOCS_STRICT)
    set(KORVANE_DOCS_WARN_AS_ERROR FAIL_ON_WARNINGS)
  else()
    set(KORVANE_DOCS_WARN_AS_ERROR NO)
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  file(GLOB_RECURSE KORVANE_DOCS_SOURCES CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/include/korvane/*.h ${PROJECT_SOURCE_DIR}/include/korvane/*.hpp)
  add_custom_command(OUTPUT ${KORVANE_DOCS_OUTPUT}/html/index.html
    COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile
    DEPENDS ${PROJECT_BINARY_DIR}/Doxyfile ${PROJECT_SOURCE_DIR}/docs/mainpage.md ${KORVANE_DOCS_SOURCES}
    COMMENT "Building the HTML reference with Doxygen"
    VERBATIM)
  add_custom_target(docs DEPENDS ${KORVANE_DOCS_OUTPUT}/html/index.html)
endif()
