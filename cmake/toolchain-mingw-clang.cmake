# The same target as toolchain-mingw.cmake through clang, with GCC's headers and libraries.
# Its purpose is clang's thread safety analysis; the shipped executable is GCC's.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw.cmake)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name
                OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
get_filename_component(gcc_dir ${libgcc} DIRECTORY)
foreach(language C CXX)
  set(CMAKE_${language}_COMPILER_TARGET x86_64-w64-mingw32)
endforeach()
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_FLAGS_INIT
    "-isystem ${gcc_dir}/include/c++ -isystem ${gcc_dir}/include/c++/x86_64-w64-mingw32")
# GCC names winpthreads behind its own libraries, which need it; clang does so when asked. Both
# define what GCC's library has as an inline function (the comparison of type_info).
foreach(kind EXE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT
      "-L${gcc_dir} -B${gcc_dir} -pthread -Wl,--allow-multiple-definition")
endforeach()
