# Instrumentation applies to every target alike: mixing instrumented and plain code hides findings. But undefined
# behaviour is looked for in the libraries: in the code around them (targets with the property OKV2_CASES: tests, and
# the files of the command itself) it costs minutes of compiling.
add_library(okv2_sanitizers INTERFACE)
if(OKV2_SANITIZE)
  # A comma in either list would be one more argument of $<IF>.
  string(REPLACE "," "$<COMMA>" for_others "${OKV2_SANITIZE}")
  string(REPLACE "$<COMMA>undefined" "" for_cases "${for_others}")
  set(is_cases "$<BOOL:$<TARGET_PROPERTY:OKV2_CASES>>")
  target_compile_options(okv2_sanitizers INTERFACE
    "-fsanitize=$<IF:${is_cases},${for_cases},${for_others}>" -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(okv2_sanitizers INTERFACE -fsanitize=${OKV2_SANITIZE})
endif()
# What is counted: src/ alone, so that the same objects of the tests serve with and without it.
add_library(okv2_counted INTERFACE)
if(OKV2_COVERAGE)
  target_compile_options(okv2_counted INTERFACE --coverage -fprofile-update=atomic -O0 -U_FORTIFY_SOURCE)
  target_link_options(okv2_sanitizers INTERFACE --coverage)
endif()
