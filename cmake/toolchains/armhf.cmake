# 32-bit ARM with hardware floating point, cross-compiled on Debian (package g++-12-arm-linux-gnueabihf); tests run under
# user-mode emulation (package qemu-user-static).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++-12)
# Without unwind tables for every function a crash report would end its backtrace at the first frame.
# The notes on argument passing are about mixing with code of compilers before GCC 7.
set(CMAKE_CXX_FLAGS_INIT "-funwind-tables -Wno-psabi")
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm-static;-L;/usr/arm-linux-gnueabihf")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
