# What the build took of live555, for the library to compare with what it finds loaded at run
# time. Writes ${CAMFETCH_GENERATED_DIR}/live555build.h with:
#   - the version, and where it came from (the Debian suite and package version the fetch
#     took, or the system's), which `camfetch --version` prints;
#   - where the library's private copy lives: the build's own tree, and the directory an
#     installed copy has beside libcamfetch;
#   - every symbol each of the four libraries imports (nm), by soname (readelf).
# The library rewrites live555's import slots only when the loaded libraries are that copy and
# import nothing beyond this record (src/rtsp/live555copy.cpp, src/rtsp/socketimports.cpp).
# Included by Live555.cmake once the libraries are found.
include_guard(GLOBAL)

set(CAMFETCH_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
# Installed, the copy sits in this directory beside libcamfetch (cmake/Install.cmake).
set(CAMFETCH_LIVE555_INSTALL_SUBDIR camfetch)

foreach(_tool CMAKE_NM CMAKE_READELF)
  if(NOT ${_tool})
    message(FATAL_ERROR "${_tool} (binutils) is needed to record live555's imports")
  endif()
endforeach()

# "name1", "name2", ... for a C++ initializer.
function(_live555_cxx_strings result)
  set(_out "")
  foreach(_item IN LISTS ARGN)
    string(APPEND _out "\n    \"${_item}\",")
  endforeach()
  set(${result} "${_out}" PARENT_SCOPE)
endfunction()

# The soname and the sorted, unversioned names of the undefined dynamic symbols of a library.
function(_live555_record library soname_var imports_var)
  execute_process(COMMAND "${CMAKE_READELF}" -d "${library}"
    OUTPUT_VARIABLE _dynamic RESULT_VARIABLE _rc)
  string(REGEX MATCH "Library soname: \\[([^]]+)\\]" _match "${_dynamic}")
  if(NOT _rc EQUAL 0 OR NOT _match)
    message(FATAL_ERROR "live555: no soname in ${library}")
  endif()
  set(${soname_var} "${CMAKE_MATCH_1}" PARENT_SCOPE)
  execute_process(COMMAND "${CMAKE_NM}" -D --undefined-only --format=posix "${library}"
    OUTPUT_VARIABLE _symbols RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "live555: ${CMAKE_NM} could not read ${library}")
  endif()
  string(REGEX MATCHALL "[^\n]+" _lines "${_symbols}")
  set(_names)
  foreach(_line IN LISTS _lines)
    string(REGEX REPLACE "^([^ @]+).*" "\\1" _name "${_line}")
    list(APPEND _names "${_name}")
  endforeach()
  list(REMOVE_DUPLICATES _names)
  list(SORT _names)
  set(${imports_var} "${_names}" PARENT_SCOPE)
endfunction()

# Where it came from: the fetch's record, or the system.
set(LIVE555_ORIGIN "the system (pkg-config)")
set(_live555_build_dir "")
if(LIVE555_FETCHED)
  set(_stamp "${CAMFETCH_LIVE555_PREFIX}/.stamp")
  file(STRINGS "${_stamp}" _suite REGEX "^suite=")
  file(STRINGS "${_stamp}" _package REGEX "^package=liblivemedia-dev=")
  # Trees fetched before the suite was recorded all came from unstable.
  string(REGEX REPLACE "^suite=" "" _suite "${_suite}")
  if(NOT _suite)
    set(_suite unstable)
  endif()
  string(REGEX REPLACE "^package=liblivemedia-dev=" "" _package "${_package}")
  set(LIVE555_ORIGIN "Debian ${_suite} ${_package}")
  file(REAL_PATH "${LIVE555_LIBRARY_DIR}" _live555_build_dir)
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_stamp}")
endif()

set(_imports_arrays "")
set(_libraries "")
set(_index 0)
foreach(_name liveMedia groupsock BasicUsageEnvironment UsageEnvironment)
  file(REAL_PATH "${LIVE555_${_name}_LIBRARY}" _file)
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_file}")
  _live555_record("${_file}" _soname _imports)
  _live555_cxx_strings(_strings ${_imports})
  string(APPEND _imports_arrays "constexpr const char* kImports${_index}[] = {${_strings}\n};\n")
  string(APPEND _libraries
    "\n    {\"${_soname}\", kImports${_index}, sizeof kImports${_index} / sizeof *kImports${_index}},")
  math(EXPR _index "${_index} + 1")
endforeach()

file(CONFIGURE OUTPUT "${CAMFETCH_GENERATED_DIR}/live555build.h" @ONLY CONTENT [=[
// What the build took of live555. Written by cmake/Live555Build.cmake; not to be edited.
#pragma once

#include <cstddef>

namespace live555build {

struct Library {
    const char* soname;
    const char* const* imports;
    size_t importCount;
};

constexpr char kVersion[] = "@LIVE555_VERSION@";
constexpr char kOrigin[] = "@LIVE555_ORIGIN@";
// The build's own copy; empty when live555 is the system's shared one.
constexpr char kBuildDirectory[] = "@_live555_build_dir@";
// An installed copy's directory, beside libcamfetch's.
constexpr char kInstallSubdirectory[] = "@CAMFETCH_LIVE555_INSTALL_SUBDIR@";

@_imports_arrays@
// libliveMedia first.
constexpr Library kLibraries[] = {@_libraries@
};

}  // namespace live555build
]=])
message(STATUS "live555 record: ${LIVE555_ORIGIN}, ${_index} libraries")
