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

function(has_its_version_in_its_file_and_its_major_in_its_name)
  run(dynamic "${READELF}" -d "${LIBRARY}")
  string(REGEX MATCH "^[0-9]+" major "${VERSION}")
  if(NOT LIBRARY MATCHES "/libtqos\\.so\\.${VERSION}$" OR NOT dynamic MATCHES "soname: \\[libtqos\\.so\\.${major}\\]")
    message(FATAL_ERROR "${LIBRARY}\n${dynamic}")
  endif()
endfunction()

# The same sources and the same flags: neither where they are nor where they are built may show.
function(is_the_same_from_two_directories)
  foreach(part include src tests cmake CMakeLists.txt)
    file(COPY "${SOURCE_DIR}/${part}" DESTINATION "${WORK_DIR}/a/longer/way/to/them")
  endforeach()
  run(ignored "${CMAKE_COMMAND}" -S "${WORK_DIR}/a/longer/way/to/them" -B "${WORK_DIR}/elsewhere" -G "${GENERATOR}"
    -DBUILD_TESTING=OFF -DTQOS_EXAMPLES=OFF "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}" "-DCMAKE_CXX_COMPILER=${COMPILER}"
    "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS_DEBUG=${DEBUG_FLAGS}")
  run(ignored "${CMAKE_COMMAND}" --build "${WORK_DIR}/elsewhere" --target tqos)
  run(ignored "${CMAKE_COMMAND}" -E compare_files "${LIBRARY}" "${WORK_DIR}/elsewhere/libtqos.so.${VERSION}")
  foreach(path "${SOURCE_DIR}" "${BUILD_DIR}")
    execute_process(COMMAND grep -acF "${path}" "${LIBRARY}" OUTPUT_VARIABLE lines)
    if(NOT lines EQUAL 0)
      message(FATAL_ERROR "${lines} lines of ${LIBRARY} hold ${path}")
    endif()
  endforeach()
endfunction()

function(keeps_its_binary_interface)
  run(ignored "${SOURCE_DIR}/scripts/abi" check "${LIBRARY}")
endfunction()

# The interface that is kept gets one function more than the library has.
function(notices_a_function_that_is_gone)
  foreach(part include scripts abi)
    file(COPY "${SOURCE_DIR}/${part}" DESTINATION "${WORK_DIR}")
  endforeach()
  file(GLOB kept "${WORK_DIR}/abi/*.abi")
  foreach(file ${kept})
    file(READ "${file}" text)
    string(REPLACE "'tqOS_uptime'" "'tqOS_downtime'" text "${text}")
    file(WRITE "${file}" "${text}")
  endforeach()
  execute_process(COMMAND "${WORK_DIR}/scripts/abi" check "${LIBRARY}" RESULT_VARIABLE result OUTPUT_VARIABLE text)
  if(NOT result EQUAL 1 OR NOT text MATCHES "tqOS_downtime.*raise TQOS_VERSION_MAJOR.*scripts/abi update")
    message(FATAL_ERROR "result ${result}: ${text}")
  endif()
endfunction()

cmake_language(CALL "${CASE}")
