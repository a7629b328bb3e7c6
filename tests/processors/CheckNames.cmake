# Fails when the table in TABLE is empty, or leaves out what is no test of the build in BUILD_DIR.
include("${CMAKE_CURRENT_LIST_DIR}/LeftOut.cmake")

execute_process(COMMAND "${CTEST}" --test-dir "${BUILD_DIR}" -N OUTPUT_VARIABLE listed COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "Test +#[0-9]+: [^ \n]+" tests "${listed}")
list(TRANSFORM tests REPLACE "^.*: " "")

left_out("" "${TABLE}" names)
if(NOT names)
  message(FATAL_ERROR "${TABLE} has no test")
endif()
foreach(name IN LISTS names)
  if(NOT name IN_LIST tests)
    message(SEND_ERROR "no such test: ${name}")
  endif()
endforeach()
