# Cross build for 64-bit Arm Linux with clang, which checks the lock annotations for that target
# too. It uses the aarch64-linux-gnu GCC installation for its C++ library, start files and linker.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)

include(${CMAKE_CURRENT_LIST_DIR}/aarch64-linux-gnu-common.cmake)
