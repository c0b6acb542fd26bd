# Documentation checks and the example programs (label docs and examples).
# Included from the top-level CMakeLists.txt after the test suite.
if(NOT QOR_BUILD_TESTS)
  return()
endif()

# ---- API reference -----------------------------------------------------
# Made by doxygen from the public headers' comments; any warning (an
# undocumented exported name above all) fails the test. Skipped with a
# message when doxygen is not installed.
find_program(QOR_DOXYGEN doxygen)
set(QOR_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs/api)
configure_file(${PROJECT_SOURCE_DIR}/docs/api/Doxyfile.in
               ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
add_test(NAME docs.api_reference
  COMMAND ${PROJECT_SOURCE_DIR}/docs/api/check_api_docs.sh ${QOR_DOXYGEN}
          ${PROJECT_BINARY_DIR}/docs/Doxyfile)
add_test(NAME docs.api_reference_catches_undocumented
  COMMAND ${PROJECT_SOURCE_DIR}/docs/api/check_api_docs.sh ${QOR_DOXYGEN}
          ${PROJECT_BINARY_DIR}/docs/Doxyfile --canary)
set_tests_properties(docs.api_reference docs.api_reference_catches_undocumented
  PROPERTIES LABELS docs SKIP_RETURN_CODE 77 TIMEOUT 300)
