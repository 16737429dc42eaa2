# Compiler settings and the functions that declare this project's targets.
include_guard(GLOBAL)
find_package(Threads REQUIRED)

add_library(zel_options INTERFACE)
target_include_directories(zel_options INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(zel_options INTERFACE Threads::Threads)
if(MSVC)
  target_compile_options(zel_options INTERFACE /W4 /WX /utf-8 /permissive- /Zc:preprocessor)
else()
  target_compile_options(zel_options INTERFACE -Wall -Wextra -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(zel_options INTERFACE -Wthread-safety)
endif()
if(WIN32)
  # The documented Windows 10 API; wide entry points only.
  target_compile_definitions(zel_options INTERFACE
    WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000)
endif()
if(MINGW)
  # What differs between two builds of one tree, but should not: the folder, the time, and what a compiler
  # cache adds. tools/check_package.sh compares two builds; it has not yet found them equal.
  target_compile_options(zel_options INTERFACE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=../..=. -gno-record-gcc-switches)
  target_link_options(zel_options INTERFACE -static -Wl,--no-insert-timestamp)
endif()
if(ZEL_SANITIZE)
  add_compile_options(-fsanitize=${ZEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZEL_SANITIZE})
endif()
if(ZEL_FUZZ)
  # Coverage for the fuzz targets, which link libFuzzer's main themselves.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# zel_precompile(TARGET KIND headers...) parses the headers once for all targets of a kind, which
# have the same compiler options; the first target names them. Parsed in every source they were more
# than a third of the compiler's time. The mingw-clang preset goes without, so that a source that does
# not include what it uses fails there.
option(ZEL_PRECOMPILED_HEADERS "Precompile the headers that most sources include" ON)
function(zel_precompile target kind)
  if(NOT ZEL_PRECOMPILED_HEADERS)
    return()
  endif()
  get_property(first GLOBAL PROPERTY zel_precompiled_${kind})
  if(first)
    target_precompile_headers(${target} REUSE_FROM ${first})
  else()
    target_precompile_headers(${target} PRIVATE ${ARGN})
    set_property(GLOBAL PROPERTY zel_precompiled_${kind} ${target})
  endif()
endfunction()

set(zel_standard_headers <algorithm> <array> <atomic> <cstdint> <cstring> <map> <memory> <optional>
    <span> <string> <string_view> <utility> <vector>)

# zel_floor(NAME CORE sources... PORTABLE sources... WIN32 sources... DEPENDS floors...
#           USES_CORE floors... LIBRARIES system libraries... HEADERS headers...)
# Declares the library zel_NAME_core of pure sources, built everywhere, and on Windows zel_NAME
# with the shell around it. PORTABLE sources have state, locks and threads but no <windows.h>: on
# Windows they are part of zel_NAME, elsewhere they make zel_NAME_portable, for tests under
# ThreadSanitizer which stand in for what these call of the shell. DEPENDS names the floors that NAME
# may include from, as tools/check_floors.py checks; USES_CORE those of which it takes the pure sources
# alone. HEADERS are other ones that most pure sources of this floor include.
function(zel_floor name)
  cmake_parse_arguments(PARSE_ARGV 1 floor "" "" "CORE;PORTABLE;WIN32;DEPENDS;USES_CORE;LIBRARIES;HEADERS")
  add_library(zel_${name}_core INTERFACE)
  if(floor_CORE)
    add_library(zel_${name}_pure STATIC ${floor_CORE})
    target_link_libraries(zel_${name}_pure PUBLIC zel_options)
    target_link_libraries(zel_${name}_core INTERFACE zel_${name}_pure)
    if(floor_HEADERS)
      zel_precompile(zel_${name}_pure ${name} ${zel_standard_headers} ${floor_HEADERS})
    else()
      zel_precompile(zel_${name}_pure core ${zel_standard_headers})
    endif()
  endif()
  foreach(lower IN LISTS floor_DEPENDS floor_USES_CORE)
    target_link_libraries(zel_${name}_core INTERFACE zel_${lower}_core)
    if(floor_CORE)
      target_link_libraries(zel_${name}_pure PUBLIC zel_${lower}_core)
    endif()
  endforeach()
  if(NOT WIN32)
    if(floor_PORTABLE)
      add_library(zel_${name}_portable STATIC ${floor_PORTABLE})
      target_link_libraries(zel_${name}_portable PUBLIC zel_options zel_${name}_core)
      foreach(lower IN LISTS floor_DEPENDS)
        if(TARGET zel_${lower}_portable)
          target_link_libraries(zel_${name}_portable PUBLIC zel_${lower}_portable)
        endif()
      endforeach()
    endif()
    return()
  endif()
  if(floor_WIN32 OR floor_PORTABLE)
    add_library(zel_${name} STATIC ${floor_PORTABLE} ${floor_WIN32})
    zel_precompile(zel_${name} shell <windows.h> ${zel_standard_headers})
    set(scope PUBLIC)
  else()
    add_library(zel_${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_link_libraries(zel_${name} ${scope} zel_options zel_${name}_core ${floor_LIBRARIES})
  foreach(lower IN LISTS floor_DEPENDS)
    target_link_libraries(zel_${name} ${scope} zel_${lower})
  endforeach()
endfunction()
