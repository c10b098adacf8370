# Debian packages, one a component: `./dev package`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veldar)
set(VELDAR_MAINTAINER "Veldar <veldar@localhost>" CACHE STRING "Who the packages name as their maintainer")
set(CPACK_PACKAGE_CONTACT "${VELDAR_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "index for logs and other events with a time")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL veldar libveldar libsearchthing dev)
if(VELDAR_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(VELDAR_SQLITE)
  list(APPEND CPACK_COMPONENTS_ALL sqlite)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/tools/libveldar)

set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
# A package of a component: its name, section and what the description says behind the line that all share.
macro(veldar_package component name section text)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${text}")
  set(notes ${PROJECT_BINARY_DIR}/packages/${name})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/packages/changelog.in ${notes}/changelog.Debian @ONLY)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/packages/copyright ${notes}/copyright COPYONLY)
  execute_process(COMMAND gzip -9nf ${notes}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${notes}/changelog.Debian.gz ${notes}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
          COMPONENT ${component})
endmacro()

veldar_package(veldar veldar utils
  "Indexes log files and metrics, each line once, and answers searches, counts\nand statistics from the index. The logs stay where they are.")
veldar_package(libveldar libveldar0 libs
  "What the veldar command knows, as a library with a stable interface in C.")
veldar_package(libsearchthing libsearchthing0 libs
  "Writes, merges and searches index files: which terms occur in which events,\nand when.")
veldar_package(dev libveldar-dev libdevel
  "Headers and archives of libveldar and of the engine below it, libsearchthing.")
veldar_package(python python3-veldar python
  "Loads and searches logs and metrics from Python, with columns that NumPy\nand pandas read in place.")
veldar_package(sqlite veldar-sqlite database
  "A loadable extension: events, terms, statistics and metrics of a store as\ntables.")

foreach(library LIBVELDAR LIBSEARCHTHING)
  set(CPACK_DEBIAN_${library}_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/packages/triggers)
endforeach()
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libveldar0 (= ${version}), libsearchthing0 (= ${version}), libxxhash-dev")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libveldar0 (= ${version}), python3 (>= 3.11), python3 (<< 3.12)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/packages/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-numpy, python3-pandas, python3-distributed")
set(CPACK_DEBIAN_SQLITE_PACKAGE_DEPENDS "libveldar0 (= ${version})")
set(CPACK_DEBIAN_SQLITE_PACKAGE_RECOMMENDS "sqlite3, veldar")
set(CPACK_DEBIAN_VELDAR_PACKAGE_SUGGESTS "veldar-sqlite")
include(CPack)
