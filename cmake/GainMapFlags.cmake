# Warnings and sanitizers of this project's own targets. They are set per target, so that a
# project that builds this one as a subproject keeps its own flags.
set(GAINMAP_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")

# gainmap_target_flags(<target> [STRICT]): STRICT adds -Wshadow and -Wconversion, for the targets
# whose sources are clean under them.
function(gainmap_target_flags target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "STRICT" "" "")
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  if(ARG_STRICT)
    target_compile_options(${target} PRIVATE -Wshadow -Wconversion)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(GAINMAP_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${GAINMAP_SANITIZE}
                                             -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${GAINMAP_SANITIZE})
  endif()
endfunction()
