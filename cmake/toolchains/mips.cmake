# 32-bit big-endian MIPS, cross-compiled on Debian (package g++-12-mips-linux-gnu); tests run under user-mode emulation
# (package qemu-user-static).
set(CMAKE_SYSTEM_PROCESSOR mips)
set(TQOS_EMULATED mips)
set(triplet mips-linux-gnu)
set(emulator qemu-mips-static)
# Atomic operations of 64 bits are calls here.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--as-needed -latomic")
include("${CMAKE_CURRENT_LIST_DIR}/emulated.cmake")
