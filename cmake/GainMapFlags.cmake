# Warnings and sanitizers of this project's own targets. They are set on each target, never on a
# directory or globally, so that a project that builds this one as a subproject keeps its own.
set(GAINMAP_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")

# gainmap_target_flags(<target>): the flags of every target.
function(gainmap_target_flags target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wshadow -Wconversion)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(GAINMAP_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${GAINMAP_SANITIZE}
                                             -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${GAINMAP_SANITIZE})
  endif()
endfunction()

# gainmap_flags_for_directory(<dir>): gainmap_target_flags on every target that compiles code in
# <dir> and below, so that a target added anywhere in the project gets them without asking.
function(gainmap_flags_for_directory dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(NOT type MATCHES "^(INTERFACE_LIBRARY|UTILITY)$")
      gainmap_target_flags(${target})
    endif()
  endforeach()
  get_property(subdirectories DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(subdirectory IN LISTS subdirectories)
    gainmap_flags_for_directory(${subdirectory})
  endforeach()
endfunction()
