# For another system, header-only libraries come from this one's: a root with links to their folders only, since the rest
# of this system's headers is not for that compiler.
if(NOT CMAKE_CROSSCOMPILING)
  return()
endif()
set(root ${PROJECT_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${root}/include ${root}/share/cmake)
foreach(part include/CLI include/nlohmann include/toml++ share/cmake/CLI11 share/cmake/nlohmann_json)
  if(IS_DIRECTORY /usr/${part})
    file(CREATE_LINK /usr/${part} ${root}/${part} SYMBOLIC)
  endif()
endforeach()
list(APPEND CMAKE_FIND_ROOT_PATH ${root})
