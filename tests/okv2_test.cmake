# okv2_add_test(NAME name SOURCES a.cpp ... [LIBS target ...] [DEFINES A=b ...] [LABELS label ...])
# One executable of GoogleTest cases = one ctest test; its results land in <build>/test-results/name.xml,
# where scripts/test counts the single cases.
function(okv2_add_test)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBS;DEFINES;LABELS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE
    ${ARG_LIBS} okv2_test_support GTest::gmock GTest::gtest GTest::gtest_main
    okv2_warnings okv2_sanitizers)
  target_compile_definitions(${ARG_NAME} PRIVATE ${ARG_DEFINES})
  # What is tested keeps the configuration's flags; the cases around it are built for a short build. Undefined
  # behaviour is looked for in the libraries: in test code it costs minutes of compiling.
  target_compile_options(${ARG_NAME} PRIVATE -O0)
  if(OKV2_SANITIZE MATCHES undefined)
    target_compile_options(${ARG_NAME} PRIVATE -fno-sanitize=undefined)
  endif()
  add_test(NAME ${ARG_NAME}
    COMMAND ${ARG_NAME} --gtest_output=xml:${CMAKE_BINARY_DIR}/test-results/${ARG_NAME}.xml)
  set_tests_properties(${ARG_NAME} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT 600)
endfunction()
