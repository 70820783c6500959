# Language, warnings, sanitizers: the same for every target.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "build type" FORCE)
endif()

# The same shape as an installation: the host finds the module beside it, in ../lib or what the
# system calls that.
include(GNUInstallDirs)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR})

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wformat=2 -Werror)

# What makes a fault hard to use for whoever finds one: tests/hardening_test.cmake reads it from the
# built files.
include(CheckPIESupported)
check_pie_supported()
add_compile_options(-fstack-protector-strong -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  add_compile_options(-fcf-protection=full)
endif()
add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
if(NOT QN_SANITIZE AND NOT QN_FUZZ)
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> # needs optimisation
                      $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

if(QN_SANITIZE)
  add_compile_options(-fsanitize=${QN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QN_SANITIZE})
  if(QN_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-tsan)  # Asio has fences, which the sanitizer does not see
  endif()
endif()

if(QN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "QN_FUZZ needs clang: configure with -DCMAKE_CXX_COMPILER=clang++")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# A request crosses many small functions of several libraries; inlined across them it costs a tenth
# less. No symbol of ours is meant to be replaced at load time.
add_compile_options($<$<CONFIG:Release>:-fno-semantic-interposition>)
add_link_options($<$<CONFIG:Release>:-Wl,-Bsymbolic-functions>)
set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_RELEASE ON)
# It also makes some four hundred calls into other libraries. All addresses are known before the
# start (-z now), so that a call goes there without a stub.
add_compile_options($<$<CONFIG:Release>:-fno-plt>)
add_link_options($<$<CONFIG:Release>:-fno-plt>)

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(jsoncpp REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(sqlite3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(jemalloc REQUIRED IMPORTED_TARGET jemalloc)
pkg_check_modules(nettle REQUIRED IMPORTED_TARGET nettle)
find_package(pugixml REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(spdlog REQUIRED)
find_package(simdjson REQUIRED)
