# Instrumentation applies to every target alike: mixing instrumented and plain code hides findings.
add_library(okv2_sanitizers INTERFACE)
if(OKV2_SANITIZE)
  target_compile_options(okv2_sanitizers INTERFACE
    -fsanitize=${OKV2_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(okv2_sanitizers INTERFACE -fsanitize=${OKV2_SANITIZE})
endif()
if(OKV2_COVERAGE)
  target_compile_options(okv2_sanitizers INTERFACE --coverage -fprofile-update=atomic -O0)
  target_compile_definitions(okv2_sanitizers INTERFACE OKV2_COVERAGE=1)  # for the tests
  target_link_options(okv2_sanitizers INTERFACE --coverage)
endif()
