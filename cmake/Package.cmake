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

# The components are staged by cpack and packaged as cmake/debian says.
set(CPACK_GENERATOR External)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
set(packages runtime libcul1 development libcul-dev)
if(CUL_PROGRAMS)
  list(APPEND CPACK_COMPONENTS_ALL program)
  list(APPEND packages program enginehost)
endif()
set(CPACK_EXTERNAL_ENABLE_STAGING ON)
set(CPACK_EXTERNAL_PACKAGE_SCRIPT ${PROJECT_BINARY_DIR}/debian/MakePackages.cmake)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/MakePackages.cmake.in
  ${CPACK_EXTERNAL_PACKAGE_SCRIPT} @ONLY)
# cpack describes what it has staged in a file of this name, which is for the script only.
set(CPACK_PACKAGE_FILE_NAME .cul)
include(CPack)
