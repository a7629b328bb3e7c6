# tqcon: its parts by themselves, and the program from outside, beside the demo device.
add_executable(tqcon_test tqcon_test.cpp tqcon_commands_test.cpp tqcon_interactive_test.cpp
  tqcon_reports_test.cpp tqcon_session_test.cpp tqcon_watch_test.cpp)
target_link_libraries(tqcon_test PRIVATE tqcon_parts tqos_tools_test)
target_compile_definitions(tqcon_test PRIVATE "TQCON_PROGRAM=\"$<TARGET_FILE:tqcon>\""
  "TQCON_PAGE=\"${PROJECT_SOURCE_DIR}/docs/tqcon.md\"")
add_dependencies(tqcon_test tqcon)
tqos_discover_tests(tqcon_test tqcon TIMEOUT 120)
