# What other projects find the installed library by, and the Debian packages.
include(CMakePackageConfigHelpers)

# For find_package(cul).
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/cul)
install(EXPORT cul NAMESPACE cul:: FILE culTargets.cmake
  DESTINATION ${package_folder} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/culConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/culConfig.cmake
              ${PROJECT_SOURCE_DIR}/cmake/CulMessageCatalog.cmake
              ${PROJECT_BINARY_DIR}/culConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT development)

# For pkg-config. The file finds the tree that it lies in.
file(RELATIVE_PATH library_to_include
  ${CMAKE_INSTALL_FULL_LIBDIR} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/cul.pc.in ${PROJECT_BINARY_DIR}/cul.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cul.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_VENDOR "Debugger Engine")
# No mailbox: ".invalid" is kept free of any.
set(CPACK_PACKAGE_CONTACT "Debugger Engine developers <engine@debugger.invalid>")
# Each package has a summary of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# cul_package(<component> <package> <section> DESCRIPTION <text> [DEPENDS <packages>])
macro(cul_package component package section)
  cmake_parse_arguments(arg "" "DESCRIPTION;DEPENDS" "" ${ARGN})
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS ${arg_DEPENDS})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION ${arg_DESCRIPTION})
endmacro()

cul_package(runtime libcul1 libs
  DESCRIPTION "common utility library of the debugger engine
Strings that carry their encoding, pools and lists, threads and locks, a
trace facility, settings, modules, pipes and processes, for every process
of the debugger.
.
This package holds the library and its configuration module.")
cul_package(development libcul-dev libdevel
  DEPENDS "libcul1 (= ${PROJECT_VERSION})"
  DESCRIPTION "common utility library of the debugger engine (development files)
The headers of the library, each one its own manual, what CMake and
pkg-config find it by, and the compiler of message catalogs.")
if(CUL_PROGRAMS)
  cul_package(program enginehost devel
    DEPENDS "libcul1 (= ${PROJECT_VERSION})"
    DESCRIPTION "runs a program under the debugger engine
Starts as every process of the debugger does, runs a program on a console
of its own and ends with the program's status.")
endif()

# What other packages depend on when they link the library. The configuration module is not
# linked and has no part in it.
set(shlibs ${PROJECT_BINARY_DIR}/debian/shlibs)
file(CONFIGURE OUTPUT ${shlibs}
  CONTENT "libcul ${PROJECT_VERSION_MAJOR} libcul1 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${shlibs})

# The tools that tell which packages a binary depends on come with dpkg-dev.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(FILE_PROGRAM file)
mark_as_advanced(DPKG_SHLIBDEPS FILE_PROGRAM)
if(DPKG_SHLIBDEPS AND FILE_PROGRAM)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()
include(CPack)
