# cmake -DCOMPILER= -DFLAGS= -DINCLUDE_DIR= -DWORK_DIR= [-DUSES=] -P CheckHeaders.cmake
# Compiles every header of INCLUDE_DIR alone (twice in one file), all of them in alphabetical order and in the opposite
# one, and the file USES, which calls what only a call compiles. Ends with an error that names what failed.
set(warnings -Wall -Wextra -Wpedantic -Wconversion -Werror)
file(GLOB headers RELATIVE "${INCLUDE_DIR}" "${INCLUDE_DIR}/*.h")
if(NOT headers)
  message(FATAL_ERROR "no headers in ${INCLUDE_DIR}")
endif()
file(MAKE_DIRECTORY "${WORK_DIR}")
set(failed "")

function(compile what file)
  execute_process(COMMAND "${COMPILER}" ${FLAGS} ${warnings} "-I${INCLUDE_DIR}" -fsyntax-only "${file}"
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message("does not compile: ${what}\n${output}")
    set(failed "${failed};${what}" PARENT_SCOPE)
  endif()
endfunction()

function(write_includes file)
  set(text "")
  foreach(header ${ARGN})
    string(APPEND text "#include <${header}>\n")
  endforeach()
  file(WRITE "${file}" "${text}")
endfunction()

foreach(header ${headers})
  write_includes("${WORK_DIR}/${header}.cpp" ${header} ${header})
  compile(${header} "${WORK_DIR}/${header}.cpp")
endforeach()

write_includes("${WORK_DIR}/ascending.cpp" ${headers})
compile("all headers in alphabetical order" "${WORK_DIR}/ascending.cpp")
list(REVERSE headers)
write_includes("${WORK_DIR}/descending.cpp" ${headers})
compile("all headers in the opposite order" "${WORK_DIR}/descending.cpp")
if(USES)
  compile("${USES}" "${USES}")
endif()

if(failed)
  message(FATAL_ERROR "${COMPILER} ${FLAGS}: ${failed}")
endif()
