# 32-bit big-endian MIPS, cross-compiled on Debian (package g++-12-mips-linux-gnu); tests run under user-mode emulation
# (package qemu-user-static).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++-12)
# Atomic operations of 64 bits are calls here.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--as-needed -latomic")
set(CMAKE_FIND_ROOT_PATH /usr/mips-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-mips-static;-L;/usr/mips-linux-gnu")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
