# The program's parts by themselves, held against the library's reader; and the program from outside. What the library
# reads while it runs goes through the wrappers in the test.
find_package(nlohmann_json 3.11 REQUIRED)
add_executable(tqini_test tqini_test.cpp)
target_link_libraries(tqini_test PRIVATE tqini_parts tqos_tools_test nlohmann_json::nlohmann_json)
target_link_options(tqini_test PRIVATE
  -Wl,--wrap=tq_GetINIFileString -Wl,--wrap=tq_GetINIFileInt -Wl,--wrap=tq_GetINIFileAffirmative
  -Wl,--wrap=_Z14tq_ReadIniRowsPKcPK13tq_IniIntegerm -Wl,--wrap=_Z14tq_ReadIniRowsPKcPK12tq_IniSwitchm)
target_compile_definitions(tqini_test PRIVATE "TQINI_PROGRAM=\"$<TARGET_FILE:tqini>\""
  "TQINI_PAGE=\"${PROJECT_SOURCE_DIR}/docs/ini.md\"")
add_dependencies(tqini_test tqini)
gtest_discover_tests(tqini_test TEST_PREFIX "tqini." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 ${tqos_test_passes})
