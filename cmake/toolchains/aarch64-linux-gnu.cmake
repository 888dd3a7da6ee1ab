# Cross build for 64-bit Arm Linux with Debian's aarch64-linux-gnu GCC. Libraries and CMake
# packages come from Debian multiarch (packages of architecture arm64); programs built here,
# tests included, run under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/aarch64-linux-gnu-common.cmake)
