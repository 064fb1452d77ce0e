# Found by find_package(cul): the library as the target cul::cul.
include(${CMAKE_CURRENT_LIST_DIR}/culTargets.cmake)
