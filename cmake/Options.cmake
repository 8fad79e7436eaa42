# Compiler and linker options: warnings for everything, hardening for everything, the library's own language subset for
# the library alone.

add_library(tilvarcm_options INTERFACE)
target_compile_options(tilvarcm_options INTERFACE
  -Wall -Wextra -Wformat=2 -Wshadow -Wundef -Wno-unused-parameter
  $<$<BOOL:${TILVARCM_WERROR}>:-Werror>)
if(TILVARCM_SANITIZE)
  target_compile_options(tilvarcm_options INTERFACE -fsanitize=${TILVARCM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tilvarcm_options INTERFACE -fsanitize=${TILVARCM_SANITIZE})
  target_compile_definitions(tilvarcm_options INTERFACE TILVARCM_SANITIZED=1)
elseif(NOT WIN32)
  target_compile_options(tilvarcm_options INTERFACE -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  target_compile_definitions(tilvarcm_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  target_link_options(tilvarcm_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

# C++ inside the library: no exceptions, no run-time types, no run-time library (so no guards of local statics either).
set(TILVARCM_LIBRARY_CXX -fno-exceptions -fno-rtti -fno-threadsafe-statics -Wformat-nonliteral -Wconversion -Wold-style-cast)
