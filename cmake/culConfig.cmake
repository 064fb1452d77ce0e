# Found by find_package(cul): the library as the target cul::cul, and the function
# cul_add_message_catalog().
include(${CMAKE_CURRENT_LIST_DIR}/culTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/CulMessageCatalog.cmake)
