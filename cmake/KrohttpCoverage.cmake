# The target `coverage`: runs the tests of the library and prints which lines and branches of src/ they have reached.
# Builds with the flags of the preset of the same name; needs gcovr.
find_program(KROHTTP_GCOVR gcovr)
if(NOT KROHTTP_GCOVR)
  message(FATAL_ERROR "no gcovr; tools/install-packages cover installs it")
endif()

add_custom_target(coverage
  COMMAND find ${CMAKE_BINARY_DIR} -name *.gcda -delete
  COMMAND unit_tests --gtest_brief=1 2> ${CMAKE_BINARY_DIR}/coverage-unit.log
  # On a disk that is full the counters of the daemon cannot be written either.
  COMMAND wire_tests --gtest_brief=1 --gtest_filter=-AddUserTest.DiskThatIsFull 2> ${CMAKE_BINARY_DIR}/coverage-wire.log
  COMMAND ${CMAKE_CTEST_COMMAND} --quiet --tests-regex ^fault/
  COMMAND ${KROHTTP_GCOVR} --root ${PROJECT_SOURCE_DIR} --filter ${PROJECT_SOURCE_DIR}/src/
    --exclude-throw-branches --exclude-unreachable-branches --print-summary
    --txt ${CMAKE_BINARY_DIR}/coverage-lines.txt ${CMAKE_BINARY_DIR}
  COMMAND ${KROHTTP_GCOVR} --root ${PROJECT_SOURCE_DIR} --filter ${PROJECT_SOURCE_DIR}/src/
    --exclude-throw-branches --exclude-unreachable-branches --branches ${CMAKE_BINARY_DIR}
  COMMAND ${CMAKE_COMMAND} -E cat ${CMAKE_BINARY_DIR}/coverage-lines.txt
  DEPENDS unit_tests wire_tests fault_tests
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL VERBATIM)
