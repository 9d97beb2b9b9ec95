# What tested code is built with stays the configuration's; the cases around it are built for a short build.
function(okv2_test_flags target)
  target_link_libraries(${target} PRIVATE
    okv2_test_support GTest::gmock GTest::gtest GTest::gtest_main okv2_warnings okv2_sanitizers)
  target_compile_options(${target} PRIVATE -O0)
  set_property(TARGET ${target} PROPERTY OKV2_CASES ON)
endfunction()

# GoogleTest's headers, compiled once for all tests: half of what a test file costs. An executable, since its
# flags must be those of the tests.
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cpp CONTENT "")
add_executable(okv2_test_headers ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cpp)
okv2_test_flags(okv2_test_headers)
target_precompile_headers(okv2_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <string> <vector>)

# okv2_add_test(NAME name SOURCES a.cpp ... [LIBS target ...] [DEFINES A=b ...] [LABELS label ...])
# One executable of GoogleTest cases = one ctest test; its results land in <build>/test-results/name.xml,
# where scripts/test counts the single cases.
function(okv2_add_test)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBS;DEFINES;LABELS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  okv2_test_flags(${ARG_NAME})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LIBS})
  target_compile_definitions(${ARG_NAME} PRIVATE ${ARG_DEFINES})
  if(NOT ARG_SOURCES MATCHES "\\.c(;|$)")  # CMake would look for the headers of C as well
    target_precompile_headers(${ARG_NAME} REUSE_FROM okv2_test_headers)
  endif()
  add_test(NAME ${ARG_NAME}
    COMMAND ${ARG_NAME} --gtest_output=xml:${CMAKE_BINARY_DIR}/test-results/${ARG_NAME}.xml)
  set_tests_properties(${ARG_NAME} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT 600)
endfunction()
