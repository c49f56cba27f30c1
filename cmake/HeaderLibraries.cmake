# Links the header-only libraries into a directory of their own, for cross builds and builds for macOS. A cross build must not see the
# host's other headers, and a native build must find the SDK's headers before Homebrew's.
#
# Sets PALAVER_HEADER_LIBRARIES, a directory to include from as a system directory.
set(PALAVER_HEADER_LIBRARIES ${CMAKE_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${PALAVER_HEADER_LIBRARIES})

# palaver_header_library(NAME HEADER ENTRY...) finds the directory that holds HEADER and links to each ENTRY there.
function(palaver_header_library name header)
  find_path(PALAVER_${name}_DIR ${header} NO_CMAKE_FIND_ROOT_PATH
    PATHS /opt/homebrew/include /usr/local/include /usr/include
    DOC "The directory that holds ${header}")
  if(NOT PALAVER_${name}_DIR)
    message(FATAL_ERROR "${header} is missing; packages/ lists the packages that are needed")
  endif()
  foreach(entry IN LISTS ARGN)
    file(CREATE_LINK ${PALAVER_${name}_DIR}/${entry} ${PALAVER_HEADER_LIBRARIES}/${entry} SYMBOLIC)
  endforeach()
endfunction()

palaver_header_library(ASIO asio.hpp asio.hpp asio)
palaver_header_library(NLOHMANN_JSON nlohmann/json.hpp nlohmann)
palaver_header_library(RAPIDJSON rapidjson/reader.h rapidjson)
