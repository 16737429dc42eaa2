# The header-only libraries of the administrator's tool. Their folders alone are put on the include
# path: the folder they lie in may hold the headers of another system, as /usr/include does for a
# cross compiler.
include_guard(GLOBAL)

add_library(zel_header_only INTERFACE)
foreach(header CLI/CLI.hpp nlohmann/json.hpp)
  get_filename_component(folder ${header} DIRECTORY)
  find_path(ZEL_${folder}_HEADERS ${header} NO_CMAKE_FIND_ROOT_PATH REQUIRED
            DOC "The folder with ${header}: libcli11-dev, nlohmann-json3-dev or vcpkg.json")
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/header_only)
  file(CREATE_LINK ${ZEL_${folder}_HEADERS}/${folder} ${CMAKE_BINARY_DIR}/header_only/${folder}
       COPY_ON_ERROR SYMBOLIC)
endforeach()
target_include_directories(zel_header_only SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/header_only)
