# tqos_module(X): the module's header include/X.h, its source src/tqos/X.cpp and its test tests/X_test.cpp.
#   DERIVABLE: applications derive from its classes; these carry their type information, which an application that is
#   built with RTTI asks for.
# tqos_private(X): a source file without public header of its own, and its test when it has one.
# tqos_libraries(): the shared and the static library from all modules named before.
set_property(GLOBAL PROPERTY TQOS_SOURCES "")
set_property(GLOBAL PROPERTY TQOS_TESTS "")

function(tqos_private name)
  set_property(GLOBAL APPEND PROPERTY TQOS_SOURCES "${PROJECT_SOURCE_DIR}/src/tqos/${name}.cpp")
  if(EXISTS "${PROJECT_SOURCE_DIR}/tests/${name}_test.cpp")
    set_property(GLOBAL APPEND PROPERTY TQOS_TESTS ${name})
  endif()
endfunction()

function(tqos_module name)
  cmake_parse_arguments(module "DERIVABLE" "" "" ${ARGN})
  foreach(file "include/${name}.h" "src/tqos/${name}.cpp" "tests/${name}_test.cpp")
    if(NOT EXISTS "${PROJECT_SOURCE_DIR}/${file}")
      message(FATAL_ERROR "The module ${name} has no ${file}")
    endif()
  endforeach()
  tqos_private(${name})
  if(module_DERIVABLE)
    set_source_files_properties("${PROJECT_SOURCE_DIR}/src/tqos/${name}.cpp" PROPERTIES COMPILE_OPTIONS -frtti)
  endif()
endfunction()

function(tqos_libraries)
  get_property(sources GLOBAL PROPERTY TQOS_SOURCES)
  add_library(tqos_objects OBJECT ${sources})
  target_include_directories(tqos_objects PRIVATE "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src/tqos")
  target_compile_options(tqos_objects PRIVATE -fvisibility=hidden -fvisibility-inlines-hidden -fno-exceptions)
  # Calls inside the library are not taken over by others (see the link options), so the compiler may look into them. It
  # does where nanoseconds count; elsewhere that would only make the library larger.
  foreach(name tq_List tq_ListHash tq_Memory tq_MemoryPool tq_MsgQ tq_SemCritSec tq_SemMutex tq_SemSemaphore tq_Timer
               tq_TimerList tq_Trace)
    set_property(SOURCE "${PROJECT_SOURCE_DIR}/src/tqos/${name}.cpp" APPEND PROPERTY COMPILE_OPTIONS
      -fno-semantic-interposition)
  endforeach()
  if(NOT TQOS_SANITIZE) # a sanitizer checks by its type information that an object is what it is used as
    target_compile_options(tqos_objects PRIVATE -fno-rtti)
  endif()
  # No build path gets into the library, so that it is the same wherever it is built; what runs in its build tree only,
  # with a sanitizer or counting what it covers, is left to find its sources by their whole names.
  if(NOT TQOS_SANITIZE AND NOT TQOS_COVERAGE)
    target_compile_options(tqos_objects PRIVATE
      "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=" "-ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
  endif()
  target_link_libraries(tqos_objects PRIVATE tqos_compile tqos_hardening tqos_coverage)

  add_library(tqos SHARED $<TARGET_OBJECTS:tqos_objects>)
  add_library(tqos_static STATIC $<TARGET_OBJECTS:tqos_objects>)
  set_target_properties(tqos PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  set_target_properties(tqos_static PROPERTIES OUTPUT_NAME tqos)
  # Some public names have no prefix: calls inside the library must not be taken over by an application's own. Threads
  # of the library run its code until they end, so it is never unmapped. Nothing it needs is left for others to supply.
  target_link_options(tqos PRIVATE -Wl,-Bsymbolic-functions -Wl,-z,nodelete -Wl,-z,defs)
  foreach(library tqos tqos_static)
    add_library(tqos::${library} ALIAS ${library})
    target_include_directories(${library} PUBLIC
      "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
      "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    target_link_libraries(${library} PRIVATE $<BUILD_INTERFACE:tqos_compile>
      $<BUILD_INTERFACE:tqos_hardening> Threads::Threads ${CMAKE_DL_LIBS})
  endforeach()
endfunction()
