# find_package(QNKavro): the targets QNKavro::protocol, the module, and QNKavro::platform, the
# reference implementation of what it calls, with the gateway as an object.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
# The status table hands out JSON (platform/base_library.h).
pkg_check_modules(QNKavro_jsoncpp REQUIRED QUIET IMPORTED_TARGET jsoncpp)
include(${CMAKE_CURRENT_LIST_DIR}/QNKavroTargets.cmake)
