# tqos_install(): libraries, headers, the CMake package and tqos.pc. What is installed finds its parts from its own place,
# so that the tree can be moved or staged with DESTDIR.
include(CMakePackageConfigHelpers)

function(tqos_pkg_config_file)
  # ${pcfiledir} is where the file stands when it is read; an absolute library directory is taken as it is.
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(TQOS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(TQOS_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(TQOS_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  else()
    file(RELATIVE_PATH up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(TQOS_PC_PREFIX "\${pcfiledir}/${up}")
    set(TQOS_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(TQOS_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  endif()
  configure_file("${PROJECT_SOURCE_DIR}/cmake/tqos.pc.in" "${PROJECT_BINARY_DIR}/tqos.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/tqos.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()

function(tqos_install)
  set(package "${CMAKE_INSTALL_LIBDIR}/cmake/tqos")
  install(TARGETS tqos tqos_static EXPORT tqosTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    FILES_MATCHING PATTERN "*.h")
  install(EXPORT tqosTargets NAMESPACE tqos:: DESTINATION "${package}")
  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tqosConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/tqosConfig.cmake" INSTALL_DESTINATION "${package}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/tqosConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/tqosConfig.cmake" "${PROJECT_BINARY_DIR}/tqosConfigVersion.cmake"
    DESTINATION "${package}")
  # GDB loads it with the library, by its name.
  install(FILES "${PROJECT_SOURCE_DIR}/tools/gdb/tqos-gdb.py"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/gdb/auto-load/${CMAKE_INSTALL_FULL_LIBDIR}"
    RENAME "libtqos.so.${PROJECT_VERSION}-gdb.py")
  tqos_pkg_config_file()
endfunction()
