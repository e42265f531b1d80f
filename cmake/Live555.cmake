# live555 for the build: the system's if pkg-config knows one, otherwise the
# Debian-unstable binaries scripts/fetch_live555.sh unpacks under .deps/live555
# (run from here at configure time unless CAMFETCH_FETCH_LIVE555 is OFF).
#
# Defines, when live555 is found:
#   camfetch::live555_headers   include dirs and the defines its ABI needs
#   camfetch::live555           the above plus the four libraries (full paths)
#   CAMFETCH_HAVE_LIVE555       ON when all of this is defined
#   LIVE555_FOUND, LIVE555_VERSION, LIVE555_FETCHED (ON for the .deps tree)
#   LIVE555_LIBRARY_DIR         where the four libraries live
#   LIVE555_MEDIA_SERVER        live555MediaServer, or ...-NOTFOUND; it has no
#                               search path of its own, so run it with
#                               LD_LIBRARY_PATH=${LIVE555_LIBRARY_DIR}
#   live555_glibc_preload       shared library of src/core/glibc_compat.cpp:
#                               LD_PRELOAD it into live555MediaServer (it is
#                               empty where glibc has the C23 functions)
#   CAMFETCH_NEED_GLIBC_COMPAT  ON when the fetched libraries import the C23
#                               strto*/scanf family this glibc lacks; libcamfetch
#                               then compiles src/core/glibc_compat.cpp in
#   CAMFETCH_GENERATED_DIR      holds live555build.h, the record of what the build
#                               took (cmake/Live555Build.cmake)
include_guard(GLOBAL)
include(CheckCXXSourceCompiles)
include(CheckFunctionExists)
include(CMakePushCheckState)
find_package(PkgConfig REQUIRED)

get_filename_component(_live555_repo "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(CAMFETCH_LIVE555_PREFIX "${_live555_repo}/.deps/live555" CACHE PATH
  "Where scripts/fetch_live555.sh unpacks live555")
option(CAMFETCH_FETCH_LIVE555 "Fetch live555 from Debian unstable when the system has none" ON)
set(CAMFETCH_GLIBC_COMPAT_SOURCE "${_live555_repo}/src/core/glibc_compat.cpp")
set(CAMFETCH_HAVE_LIVE555 OFF)
set(CAMFETCH_NEED_GLIBC_COMPAT OFF)

# A system live555 wins; the fetched tree is used otherwise.  The fetch script
# is cheap once done, so it runs on every configure that uses the tree: a
# deleted .deps comes back instead of leaving stale cached paths.
# The .pc files name the tree by its real path, which differs from the prefix when
# .deps is a link (a worktree sharing another checkout's fetch).
file(REAL_PATH "${CAMFETCH_LIVE555_PREFIX}" _live555_prefix_real)
function(_live555_in_prefix result)
  string(FIND "${LIVE555_LIBRARY_DIRS};" "${CAMFETCH_LIVE555_PREFIX}/" _at)
  string(FIND "${LIVE555_LIBRARY_DIRS};" "${_live555_prefix_real}/" _at_real)
  if(_at EQUAL 0 OR _at_real EQUAL 0)
    set(${result} ON PARENT_SCOPE)
  else()
    set(${result} OFF PARENT_SCOPE)
  endif()
endfunction()

pkg_check_modules(LIVE555 QUIET live555)
_live555_in_prefix(_live555_in_tree)
if(NOT LIVE555_FOUND OR _live555_in_tree)
  if(CAMFETCH_FETCH_LIVE555)
    execute_process(COMMAND bash "${_live555_repo}/scripts/fetch_live555.sh"
      RESULT_VARIABLE _live555_fetch_result)
    if(NOT _live555_fetch_result EQUAL 0)
      message(WARNING "scripts/fetch_live555.sh failed (${_live555_fetch_result})")
    endif()
  endif()
  set(_live555_saved_pc_path "$ENV{PKG_CONFIG_PATH}")
  set(ENV{PKG_CONFIG_PATH} "${CAMFETCH_LIVE555_PREFIX}:$ENV{PKG_CONFIG_PATH}")
  pkg_check_modules(LIVE555 QUIET live555)
  set(ENV{PKG_CONFIG_PATH} "${_live555_saved_pc_path}")
endif()
if(NOT LIVE555_FOUND)
  message(WARNING "live555 not found (no system live555.pc and nothing in ${CAMFETCH_LIVE555_PREFIX})")
  return()
endif()

_live555_in_prefix(LIVE555_FETCHED)

# Full paths, so CMake puts their directory into the build RPATH by itself.
set(_live555_libraries)
foreach(_name liveMedia groupsock BasicUsageEnvironment UsageEnvironment)
  if(LIVE555_LIBRARY_DIRS)
    find_library(LIVE555_${_name}_LIBRARY ${_name} PATHS ${LIVE555_LIBRARY_DIRS} NO_DEFAULT_PATH)
  else()
    find_library(LIVE555_${_name}_LIBRARY ${_name})
  endif()
  if(NOT LIVE555_${_name}_LIBRARY)
    message(WARNING "live555: lib${_name} not found")
    set(LIVE555_FOUND OFF)
    return()
  endif()
  list(APPEND _live555_libraries "${LIVE555_${_name}_LIBRARY}")
endforeach()
get_filename_component(LIVE555_LIBRARY_DIR "${LIVE555_liveMedia_LIBRARY}" DIRECTORY)

# Defines that change the headers must match the build of the libraries.
# NO_STD_LIB turns the event-loop watch variable from std::atomic_char into
# char volatile, and distribution .pc files do not mention it, so ask the
# library: the non-virtual doEventLoop call links only if it was built so.
set(_live555_cflags ${LIVE555_CFLAGS_OTHER})
if(NOT "-DNO_STD_LIB" IN_LIST _live555_cflags)
  cmake_push_check_state(RESET)
  set(CMAKE_REQUIRED_QUIET ON)
  set(CMAKE_REQUIRED_INCLUDES ${LIVE555_INCLUDE_DIRS})
  set(CMAKE_REQUIRED_DEFINITIONS -DNO_STD_LIB)
  set(CMAKE_REQUIRED_LIBRARIES ${_live555_libraries})
  # Leave the libraries' own imports (the C23 glibc names) out of this question.
  set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,--allow-shlib-undefined)
  check_cxx_source_compiles([=[
#include <BasicUsageEnvironment.hh>
int main() {
  EventLoopWatchVariable stop = 1;
  BasicTaskScheduler* scheduler = BasicTaskScheduler::createNew();
  scheduler->BasicTaskScheduler0::doEventLoop(&stop);
  return 0;
}]=] LIVE555_BUILT_WITH_NO_STD_LIB)
  cmake_pop_check_state()
  if(LIVE555_BUILT_WITH_NO_STD_LIB)
    list(APPEND _live555_cflags -DNO_STD_LIB)
  endif()
endif()

# The libraries are built with TLS support; its OpenSSL members sit in the
# public headers (RTSPClient holds them by value), so NO_OPENSSL must not be
# defined and the OpenSSL headers must be present.
find_path(LIVE555_OPENSSL_INCLUDE_DIR openssl/ssl.h)
if(NOT LIVE555_OPENSSL_INCLUDE_DIR)
  message(FATAL_ERROR "live555's headers include <openssl/ssl.h>: install libssl-dev")
endif()

add_library(camfetch::live555_headers INTERFACE IMPORTED GLOBAL)
set_target_properties(camfetch::live555_headers PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${LIVE555_INCLUDE_DIRS}"
  INTERFACE_COMPILE_OPTIONS "${_live555_cflags}")

add_library(camfetch::live555 INTERFACE IMPORTED GLOBAL)
set_target_properties(camfetch::live555 PROPERTIES
  INTERFACE_LINK_LIBRARIES "camfetch::live555_headers;${_live555_libraries}")

add_library(live555_glibc_preload SHARED "${CAMFETCH_GLIBC_COMPAT_SOURCE}")
set_target_properties(live555_glibc_preload PROPERTIES CXX_VISIBILITY_PRESET default)
# Preloaded into live555MediaServer, which is not built with the sanitizers: so neither is
# this (an instrumented preload would not load there).
set_property(TARGET live555_glibc_preload PROPERTY COMPILE_OPTIONS "")
set_property(TARGET live555_glibc_preload PROPERTY LINK_OPTIONS "")

set(CAMFETCH_NEED_GLIBC_COMPAT OFF)
if(LIVE555_FETCHED)
  # The unpacked libraries carry no search path of their own, and a RUNPATH
  # only serves its object's direct dependencies: libliveMedia would not find
  # libgroupsock.  An old-style RPATH on the consumer is also searched for the
  # libraries it loads, so consumers link with --disable-new-dtags.
  set_property(TARGET camfetch::live555 APPEND PROPERTY
    INTERFACE_LINK_OPTIONS "LINKER:--disable-new-dtags")
  list(APPEND CMAKE_BUILD_RPATH "${LIVE555_LIBRARY_DIR}")
  list(APPEND CMAKE_INSTALL_RPATH "${LIVE555_LIBRARY_DIR}")

  # scripts/glibc_compat_patch.py left the C23 names unversioned in the
  # libraries; if this glibc does not define them, we must.
  cmake_push_check_state(RESET)
  set(CMAKE_REQUIRED_QUIET ON)
  check_function_exists(__isoc23_strtol CAMFETCH_HAVE_ISOC23_STRTOL)
  cmake_pop_check_state()
  if(NOT CAMFETCH_HAVE_ISOC23_STRTOL)
    # libcamfetch compiles the definitions in; live555MediaServer gets them
    # through live555_glibc_preload.
    set(CAMFETCH_NEED_GLIBC_COMPAT ON)
  endif()
endif()

if(LIVE555_FETCHED)
  set(_live555_bin_hint "${CAMFETCH_LIVE555_PREFIX}/root/usr/bin")
  find_program(LIVE555_MEDIA_SERVER live555MediaServer PATHS "${_live555_bin_hint}" NO_DEFAULT_PATH)
else()
  find_program(LIVE555_MEDIA_SERVER live555MediaServer)
endif()
set(CAMFETCH_HAVE_LIVE555 ON)
include(Live555Build)
message(STATUS "live555 ${LIVE555_VERSION} in ${LIVE555_LIBRARY_DIR}"
  " (fetched: ${LIVE555_FETCHED}, glibc compat: ${CAMFETCH_NEED_GLIBC_COMPAT},"
  " flags: ${_live555_cflags})")
