# What `cmake --install` leaves behind: the two libraries, their headers under include/veldar, and the two ways in which
# another project finds them (find_package(veldar) and pkg-config veldar).
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME dev)

install(TARGETS zero searchthing EXPORT veldar-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
# What programs include, and the records that it needs by name; none of these includes one that is not here.
set(face
    st.h st_optimize.h base/stop_check.h base/warm_rc.h format/tsidx_names.h format/write_options.h values/st_tsval.h search/query.h
    reading/cursors.h reading/tsidx_read.h reading/tsidx_select.h)
set(records
    base/language.h base/query_info.h base/st_init.h base/st_timeval.h lexicon/term_choice.h search/select_cell.h
    search/select_spec.h search/select_table.h directory/tsidx.h reading/tsidx_snapshot.h upkeep/tsidx_upkeep.h)
foreach(header ${face} ${records})
  if(EXISTS ${PROJECT_SOURCE_DIR}/searchthing/${header})
    cmake_path(GET header PARENT_PATH room)
    install(FILES ${PROJECT_SOURCE_DIR}/searchthing/${header}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veldar/searchthing/${room})
  endif()
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/veldar)
install(EXPORT veldar-targets NAMESPACE veldar:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/veldar-config.cmake.in
                              ${PROJECT_BINARY_DIR}/veldar-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/veldar-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veldar-config.cmake ${PROJECT_BINARY_DIR}/veldar-config-version.cmake
              ${CMAKE_CURRENT_LIST_DIR}/FindxxHash.cmake DESTINATION ${package_dir})

# The prefix is told relative to the .pc file, so that an installed tree can be moved.
file(RELATIVE_PATH VELDAR_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/veldar.pc.in ${PROJECT_BINARY_DIR}/veldar.pc @ONLY)
if(TARGET veldar_shared)
  install(TARGETS veldar_shared EXPORT veldar-targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libveldar NAMELINK_COMPONENT dev)
  install(TARGETS searchthing_shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libsearchthing NAMELINK_COMPONENT dev)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/libveldar/face/veldar.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/libveldar.pc.in ${PROJECT_BINARY_DIR}/libveldar.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/libveldar.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
install(FILES ${PROJECT_BINARY_DIR}/veldar.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
