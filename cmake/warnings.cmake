# Warnings are errors everywhere: a warning that stays is one that nobody reads.
add_compile_options(
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align=strict -Wformat=2
  -Wimplicit-fallthrough -Wnull-dereference -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-restrict)  # GCC 12 misfires on string + string (GCC bug 105651)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ZOL_SANITIZE)
  # GCC's flow analysis misfires on sanitizer instrumentation.
  add_compile_options(-Wno-null-dereference -Wno-maybe-uninitialized -Wno-stringop-overflow)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wno-unknown-warning-option)
endif()

add_compile_options(-fno-omit-frame-pointer -fstack-protector-strong)
if(ZOL_SANITIZE)
  add_compile_options(-fsanitize=${ZOL_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZOL_SANITIZE})
endif()
