# How everything in the project is compiled: language, warnings, sanitizers. The flags hang on one interface target, so
# that each target says that it takes them.
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

get_property(multiConfig GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT multiConfig)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# What every target of the project takes: warnings, 64-bit time and file offsets in the 32-bit width, sanitizers.
add_library(tqos_compile INTERFACE)
target_compile_features(tqos_compile INTERFACE cxx_std_17)
target_compile_definitions(tqos_compile INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
# Debug builds check the order in which the library takes its locks.
target_compile_definitions(tqos_compile INTERFACE $<$<CONFIG:Debug>:TQOS_LOCK_ORDER>)
target_compile_options(tqos_compile INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wvla)
# A crash can come at any instruction, and its report shows the frames above it: processors that unwind without tables
# are asked for them, those that have them anyway lose nothing.
target_compile_options(tqos_compile INTERFACE -fasynchronous-unwind-tables)
# Texts are cut at the ends of their buffers on purpose wherever snprintf() writes them.
target_compile_options(tqos_compile INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-format-truncation>)
if(TQOS_WARNINGS_AS_ERRORS)
  target_compile_options(tqos_compile INTERFACE -Werror)
endif()
if(TQOS_SANITIZE)
  # No check of virtual tables: it reads type information, and the library is built without any.
  target_compile_options(tqos_compile INTERFACE
    -fsanitize=${TQOS_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tqos_compile INTERFACE -fsanitize=${TQOS_SANITIZE})
endif()
# The library alone counts what it runs; what is linked with it needs the counters' runtime.
add_library(tqos_coverage INTERFACE)
if(TQOS_COVERAGE)
  # What a child of vfork() calls stays as it is: the counted kinds write the counters out on behalf of its parent.
  target_compile_options(tqos_coverage INTERFACE --coverage -fprofile-update=atomic -O0
    -fno-builtin-execl -fno-builtin-execlp -fno-builtin-execle -fno-builtin-execv -fno-builtin-execvp -fno-builtin-execve)
  target_link_options(tqos_compile INTERFACE --coverage)
endif()
target_link_libraries(tqos_compile INTERFACE Threads::Threads ${CMAKE_DL_LIBS})

# What a device's library is hardened with: checked buffers and stacks, and nothing writable that is executable or, once
# it is loaded, has to be written. Applications that link it choose for themselves.
add_library(tqos_hardening INTERFACE)
target_compile_options(tqos_hardening INTERFACE -fstack-protector-strong)
# Debug builds call the C library by its plain names, which tests take the place of; sanitizers check by themselves.
if(NOT TQOS_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(tqos_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
target_link_options(tqos_hardening INTERFACE
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-z,text)
