# 32-bit ARM with hardware floating point, cross-compiled on Debian (package g++-12-arm-linux-gnueabihf); tests run under
# user-mode emulation (package qemu-user-static).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TQOS_EMULATED armhf)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm-static)
# The notes on argument passing are about mixing with code of compilers before GCC 7.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include("${CMAKE_CURRENT_LIST_DIR}/emulated.cmake")
