# Read by ctest before the tests run: what the sanitizers are asked for, unless the caller's environment says otherwise.
function(ask sanitizer options)
  if(NOT DEFINED "ENV{${sanitizer}}")
    set("ENV{${sanitizer}}" "${options}")
  endif()
endfunction()

ask(ASAN_OPTIONS "detect_stack_use_after_return=1")
ask(UBSAN_OPTIONS "print_stacktrace=1")
ask(TSAN_OPTIONS "halt_on_error=1 second_deadlock_stack=1")
