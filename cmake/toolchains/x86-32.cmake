# 32-bit x86 with the compiler's multilib. Debian's versioned multilib package has no asm/ headers for 32 bits: those of
# the machine serve, behind everything else.
set(CMAKE_CXX_FLAGS_INIT "-m32")
if(EXISTS "/usr/include/x86_64-linux-gnu")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -idirafter /usr/include/x86_64-linux-gnu")
endif()
