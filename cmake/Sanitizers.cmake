# Instrumentation applies to every target alike: mixing instrumented and plain code hides findings.
add_library(okv2_sanitizers INTERFACE)
if(OKV2_SANITIZE)
  target_compile_options(okv2_sanitizers INTERFACE
    -fsanitize=${OKV2_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(okv2_sanitizers INTERFACE -fsanitize=${OKV2_SANITIZE})
endif()
# What is counted: src/ alone, so that the same objects of the tests serve with and without it.
add_library(okv2_counted INTERFACE)
if(OKV2_COVERAGE)
  target_compile_options(okv2_counted INTERFACE --coverage -fprofile-update=atomic -O0 -U_FORTIFY_SOURCE)
  target_link_options(okv2_sanitizers INTERFACE --coverage)
endif()
