# Cross-compilation for the camera board: AArch64 Linux with glibc, using Debian's
# aarch64-linux-gnu cross compiler (package g++-aarch64-linux-gnu).
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# Binaries built here run on the build host under qemu-aarch64 (package qemu-user): CTest and
# gtest_discover_tests go through CMAKE_CROSSCOMPILING_EMULATOR. GoogleTest is compiled for the
# target from Debian's source package (/usr/src/googletest) by cmake/toolchains/gtest-from-source.cmake
# because the host's libgtest is built for x86-64.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(AFD_CROSS_TRIPLE aarch64-linux-gnu)
set(AFD_CROSS_SYSROOT /usr/${AFD_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${AFD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${AFD_CROSS_TRIPLE}-g++)

# GCC fuses a * b + c into one fused multiply-add on AArch64 (even in ISO mode), which rounds once
# instead of twice; x86-64 without FMA rounds twice. Keep floating-point results bit-identical to
# the desktop build that the tests and the virtual camera run on.
set(CMAKE_C_FLAGS_INIT "-ffp-contract=off")
set(CMAKE_CXX_FLAGS_INIT "-ffp-contract=off")

# Libraries and headers only from the target's directory; programs (the emulator, code
# generators) from the host.
set(CMAKE_FIND_ROOT_PATH ${AFD_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Run target binaries on the host through user-mode emulation, with the target's dynamic loader
# and libraries taken from the cross compiler's directory.
find_program(AFD_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(AFD_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${AFD_QEMU_AARCH64};-L;${AFD_CROSS_SYSROOT}")
endif()

# find_package(GTest) is answered by building GoogleTest for the target from source.
list(APPEND CMAKE_PROJECT_TOP_LEVEL_INCLUDES "${CMAKE_CURRENT_LIST_DIR}/gtest-from-source.cmake")
