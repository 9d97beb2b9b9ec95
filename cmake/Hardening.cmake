# What a library that is loaded into other people's processes is built with.
add_library(okv2_hardening INTERFACE)
target_compile_options(okv2_hardening INTERFACE -fstack-protector-strong)
if(NOT OKV2_SANITIZE)
  # Needs optimisation, and the sanitizers bring their own checks.
  target_compile_definitions(okv2_hardening INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
target_link_options(okv2_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
