# Writes the table of error names from a toolchain's winerror.h, one line a code, sorted by code:
#     {5, "ERROR_ACCESS_DENIED"},
#
#   cmake -D HEADER=<winerror.h> -D OUTPUT=<file> -P generate_error_names.cmake
#
# Taken are ERROR_* with a plain decimal value (MinGW: __MSABI_LONG(5); Windows SDK: 5L), which
# leaves out the HRESULTs among them, and WSA* with codes 10004 to 10112 (MinGW: (WSABASEERR + 9);
# Windows SDK: 10009L). Of two names for one code the first is taken.
cmake_minimum_required(VERSION 3.25)

file(READ "${HEADER}" header)
string(PREPEND header "\n")  # every line now follows a line end
set(define "\n[ \t]*#[ \t]*define[ \t]+")
string(REGEX MATCHALL "${define}ERROR_[A-Za-z0-9_]+[ \t]+(__MSABI_LONG\\()?[0-9]+[L)]"
       errors "${header}")
string(REGEX MATCHALL
       "${define}WSA[A-Za-z0-9_]+[ \t]+(\\(WSABASEERR[ \t]*\\+[ \t]*[0-9]+[ \t]*\\)|[0-9]+L)"
       sockets "${header}")

set(codes "")
foreach(line IN LISTS errors sockets)
  string(REGEX MATCH "define[ \t]+([A-Za-z0-9_]+)[ \t]+[^0-9]*([0-9]+)" _ "${line}")
  set(name ${CMAKE_MATCH_1})
  set(code ${CMAKE_MATCH_2})
  if(line MATCHES "WSABASEERR")
    math(EXPR code "10000 + ${code}")
  endif()
  if(name MATCHES "^WSA" AND (code LESS 10004 OR code GREATER 10112))
    continue()
  endif()
  if(NOT DEFINED name_of_${code})
    set(name_of_${code} ${name})
    list(APPEND codes ${code})
  endif()
endforeach()
if(NOT DEFINED name_of_0 OR NOT DEFINED name_of_10009)
  message(FATAL_ERROR "${HEADER}: ERROR_SUCCESS or WSAEBADF not found")
endif()

list(SORT codes COMPARE NATURAL)
set(table "")
foreach(code IN LISTS codes)
  string(APPEND table "{${code}, \"${name_of_${code}}\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "${table}")
