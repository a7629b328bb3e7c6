# tqtrace: its parts by themselves, and the program from outside, beside the demo device.
add_executable(tqtrace_test tqtrace_test.cpp tqtrace_follow_test.cpp)
target_link_libraries(tqtrace_test PRIVATE tqtrace_parts tqos_tools_test)
target_compile_definitions(tqtrace_test PRIVATE "TQTRACE_PROGRAM=\"$<TARGET_FILE:tqtrace>\"")
add_dependencies(tqtrace_test tqtrace)
gtest_discover_tests(tqtrace_test TEST_PREFIX "tqtrace." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 ${tqos_test_passes})
