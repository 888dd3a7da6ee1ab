# Shared by the aarch64-linux-gnu toolchain files.

# Headers and libraries of the target only; build tools are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Target programs run under user-mode QEMU. Its default library prefix is the host's root, where
# multiarch puts the arm64 loader and libc: giving it the cross toolchain's directory instead
# pairs that loader with another libc.
find_program(GAINMAP_QEMU_AARCH64 qemu-aarch64)
if(GAINMAP_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${GAINMAP_QEMU_AARCH64})
endif()
