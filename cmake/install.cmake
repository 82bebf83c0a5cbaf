# What an installed library consists of: libvel.so, the public headers, a CMake package and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(vel_package ${CMAKE_INSTALL_LIBDIR}/cmake/vel)
install(TARGETS vel EXPORT vel-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT vel-targets NAMESPACE vel:: DESTINATION ${vel_package})

# Headers that say "(internal)" in their first line stay here, as do those of the boundary and of the tests.
file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/vel/*.h)
list(FILTER headers EXCLUDE REGEX "^vel/(os|testing)/")
foreach(header IN LISTS headers)
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} first_line LIMIT_COUNT 1)
    if(NOT first_line MATCHES "\\(internal\\)")
        get_filename_component(folder ${header} DIRECTORY)
        install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
    endif()
endforeach()

write_basic_package_version_file(${PROJECT_BINARY_DIR}/vel-config-version.cmake COMPATIBILITY SameMinorVersion)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/vel-config.cmake
     CONTENT "include(\${CMAKE_CURRENT_LIST_DIR}/vel-targets.cmake)\n" ESCAPE_QUOTES @ONLY)
file(RELATIVE_PATH vel_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/vel.pc.in ${PROJECT_BINARY_DIR}/vel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vel-config.cmake ${PROJECT_BINARY_DIR}/vel-config-version.cmake
        DESTINATION ${vel_package})
install(FILES ${PROJECT_BINARY_DIR}/vel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
