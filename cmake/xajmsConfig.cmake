# CMake package of libxajms: find_package(xajms) gives the imported target xajms::xajms.
include("${CMAKE_CURRENT_LIST_DIR}/xajmsTargets.cmake")
