# What `cmake --install` leaves behind: the two libraries, their headers under include/veldar, and the two ways in which
# another project finds them (find_package(veldar) and pkg-config veldar).
include(CMakePackageConfigHelpers)

install(TARGETS zero searchthing EXPORT veldar-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(area libzero searchthing)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${area} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veldar
          FILES_MATCHING PATTERN "*.h" PATTERN "*_internal.h" EXCLUDE)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/veldar)
install(EXPORT veldar-targets NAMESPACE veldar:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/veldar-config.cmake.in
                              ${PROJECT_BINARY_DIR}/veldar-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/veldar-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veldar-config.cmake ${PROJECT_BINARY_DIR}/veldar-config-version.cmake
        DESTINATION ${package_dir})

# The prefix is told relative to the .pc file, so that an installed tree can be moved.
file(RELATIVE_PATH VELDAR_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/veldar.pc.in ${PROJECT_BINARY_DIR}/veldar.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/veldar.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
