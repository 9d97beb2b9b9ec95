# Linked by every target of this project; never exported.
add_library(okv2_warnings INTERFACE)
target_compile_options(okv2_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wcast-qual -Wcast-align -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>)
# GCC 12 takes the copies inside std::string's operator+ for overlapping ones (GCC bug 105651).
target_compile_options(okv2_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(OKV2_WERROR)
  target_compile_options(okv2_warnings INTERFACE -Werror)
endif()
