# What the toolchain files of other processors share, once they have set CMAKE_SYSTEM_PROCESSOR, TQOS_EMULATED (the
# name in docs/processors.md), `triplet` (Debian's name of the target) and `emulator` (the program that runs what is
# built).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++-12)
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_CROSSCOMPILING_EMULATOR "${emulator};-L;/usr/${triplet}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
