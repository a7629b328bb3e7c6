cmake_policy(VERSION 3.22) # ctest has read no project that asked for any

# left_out(PROCESSOR FILE RESULT): the names of the tests that the table in FILE (docs/processors.md) leaves out on the
# processor, or of all that it has when PROCESSOR is empty. A row is `| test | processors | why |`.
function(left_out processor file result)
  set(names "")
  file(STRINGS "${file}" rows REGEX "^\\| `[^`]+` \\|")
  foreach(row IN LISTS rows)
    string(REGEX MATCH "^\\| `([^`]+)` \\| ([a-z, ]+) \\|" matched "${row}")
    set(name "${CMAKE_MATCH_1}")
    string(REPLACE ", " ";" processors "${CMAKE_MATCH_2}")
    if(NOT processor OR processor IN_LIST processors)
      list(APPEND names "${name}")
    endif()
  endforeach()
  set(${result} "${names}" PARENT_SCOPE)
endfunction()
