# CLI11 and nlohmann-json, both header-only, under their usual target names.
# In a cross build their package files (under /usr/share/cmake) would put the
# host's /usr/include on the target's include path, in front of the target's
# own C library headers; there only their two header trees are copied into
# the build tree and offered as imported targets.
if(TARGET CLI11::CLI11 AND TARGET nlohmann_json::nlohmann_json)
  return()
endif()
if(NOT CMAKE_CROSSCOMPILING)
  find_package(CLI11 CONFIG REQUIRED)
  find_package(nlohmann_json 3 CONFIG REQUIRED)
  return()
endif()

set(brask_header_only_dir ${CMAKE_BINARY_DIR}/header-only)
foreach(package IN ITEMS "CLI11::CLI11|CLI/CLI.hpp|CLI" "nlohmann_json::nlohmann_json|nlohmann/json.hpp|nlohmann")
  string(REPLACE "|" ";" parts "${package}")
  list(GET parts 0 target)
  list(GET parts 1 header)
  list(GET parts 2 tree)
  find_path(brask_${tree}_include ${header} PATHS /usr/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT brask_${tree}_include)
    message(FATAL_ERROR "${header} not found under /usr/include (Debian: libcli11-dev, nlohmann-json3-dev)")
  endif()
  file(COPY ${brask_${tree}_include}/${tree} DESTINATION ${brask_header_only_dir})
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${brask_header_only_dir})
endforeach()
