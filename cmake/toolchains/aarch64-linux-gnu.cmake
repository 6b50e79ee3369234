# Cross build for 64-bit Arm Linux with Debian's g++-aarch64-linux-gnu.
# Tests run under qemu-aarch64 with the cross toolchain's runtime as sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(KORVANE_AARCH64_SYSROOT /usr/aarch64-linux-gnu CACHE PATH "Runtime libraries of the cross toolchain")
set(CMAKE_FIND_ROOT_PATH ${KORVANE_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KORVANE_QEMU_AARCH64 qemu-aarch64)
if(KORVANE_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVANE_QEMU_AARCH64} -L ${KORVANE_AARCH64_SYSROOT})
endif()
