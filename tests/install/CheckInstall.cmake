# cmake -DCASE=... -P CheckInstall.cmake: one case, in WORK_DIR. See CMakeLists.txt for the other variables.
cmake_minimum_required(VERSION 3.22)
set(prefix "${WORK_DIR}/moved")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

# run(OUTPUT COMMAND...): ends with an error when the command fails.
function(run output)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE text)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${text}")
  endif()
  set(${output} "${text}" PARENT_SCOPE)
endfunction()

# Staged for one prefix, then moved to another: nothing in it may know where it was meant to go.
function(install_and_move)
  run(ignored "${CMAKE_COMMAND}" -E env "DESTDIR=${WORK_DIR}/stage" "${CMAKE_COMMAND}" --install "${BUILD_DIR}"
    --prefix /opt/tqos)
  file(RENAME "${WORK_DIR}/stage/opt/tqos" "${prefix}")
endfunction()

function(expect_greeting program)
  run(text "${CMAKE_COMMAND}" -E env "LD_LIBRARY_PATH=${prefix}/${LIBDIR}" ${EMULATOR} "${program}")
  if(NOT text STREQUAL "consumer: MSG_CREATE MSG_USER MSG_DESTROY\n")
    message(FATAL_ERROR "${program} says: ${text}")
  endif()
endfunction()

function(serves_find_package)
  install_and_move()
  run(ignored "${CMAKE_COMMAND}" -S "${SOURCE_DIR}/tests/install/consumer" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_PREFIX_PATH=${prefix}")
  run(ignored "${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
  expect_greeting("${WORK_DIR}/build/shared")
  expect_greeting("${WORK_DIR}/build/static")
endfunction()

function(serves_pkg_config)
  install_and_move()
  set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
  run(version "${PKG_CONFIG}" --modversion tqos)
  if(NOT version STREQUAL "${VERSION}\n")
    message(FATAL_ERROR "tqos.pc has version ${version}")
  endif()
  run(needed "${PKG_CONFIG}" --cflags --libs tqos)
  separate_arguments(needed UNIX_COMMAND "${needed}")
  separate_arguments(flags UNIX_COMMAND "${FLAGS}")
  run(ignored "${COMPILER}" ${flags} -o "${WORK_DIR}/shared" "${SOURCE_DIR}/tests/install/consumer/main.cpp" ${needed})
  expect_greeting("${WORK_DIR}/shared")
endfunction()

function(installs_every_public_header)
  install_and_move()
  file(GLOB expected RELATIVE "${SOURCE_DIR}/include" "${SOURCE_DIR}/include/*")
  file(GLOB installed RELATIVE "${prefix}/${INCLUDEDIR}" "${prefix}/${INCLUDEDIR}/*")
  if(NOT installed STREQUAL expected OR NOT installed MATCHES "tqos\\.h")
    message(FATAL_ERROR "installed: ${installed}\nexpected: ${expected}")
  endif()
endfunction()

function(needs_no_test_tools_without_tests)
  run(ignored "${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}" -DBUILD_TESTING=OFF
    -DTQOS_GTEST_SOURCES=/nowhere "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_FLAGS=${FLAGS}")
  file(STRINGS "${WORK_DIR}/build/CMakeCache.txt" asked REGEX "^(TQOS_CLANGXX|TQOS_GXX|TQOS_PKG_CONFIG)")
  if(asked)
    message(FATAL_ERROR "looked for: ${asked}")
  endif()
endfunction()

function(says_where_googletest_is_expected)
  execute_process(COMMAND "${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    -DTQOS_GTEST_SOURCES=/nowhere "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_FLAGS=${FLAGS}"
    RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE text)
  if(result EQUAL 0 OR NOT text MATCHES "No GoogleTest sources in /nowhere: install Debian's package googletest")
    message(FATAL_ERROR "result ${result}: ${text}")
  endif()
endfunction()

cmake_language(CALL "${CASE}")
