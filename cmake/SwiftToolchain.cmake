# Finds the Swift toolchain of Linux by PALAVER_SWIFT_BIN or the PATH. Its CoreFoundation, libdispatch and Blocks runtime
# have the same sources as those of macOS, so C++ written against them runs here. Defines
#   SWIFTC                          the compiler
#   SWIFT_TOOLCHAIN                 the toolchain's prefix, the folder that holds bin and lib
#   SwiftToolchain::CoreFoundation  CoreFoundation, libdispatch, blocks; needs clang
# and stops with an explanation if there is none.

find_program(SWIFTC swiftc HINTS ENV PALAVER_SWIFT_BIN)
if(NOT SWIFTC)
  message(FATAL_ERROR "swiftc is missing; put the Swift toolchain's bin folder on the PATH.")
endif()
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "Blocks need clang; use the preset apple.")
endif()

# The program on the PATH may be a link into the toolchain.
file(REAL_PATH ${SWIFTC} SWIFT_TOOLCHAIN)
cmake_path(GET SWIFT_TOOLCHAIN PARENT_PATH SWIFT_TOOLCHAIN)
cmake_path(GET SWIFT_TOOLCHAIN PARENT_PATH SWIFT_TOOLCHAIN)

set(swift_headers ${SWIFT_TOOLCHAIN}/lib/swift)
set(swift_libraries ${swift_headers}/linux)
foreach(needed ${swift_headers}/CoreFoundation/CoreFoundation.h ${swift_headers}/dispatch/dispatch.h
        ${swift_headers}/Block/Block.h ${swift_libraries}/libFoundation.so ${swift_libraries}/libdispatch.so
        ${swift_libraries}/libBlocksRuntime.so)
  if(NOT EXISTS ${needed})
    message(FATAL_ERROR "The Swift toolchain of ${SWIFTC} lacks ${needed}.")
  endif()
endforeach()

if(NOT TARGET SwiftToolchain::CoreFoundation)
  add_library(SwiftToolchain::CoreFoundation INTERFACE IMPORTED)
  target_include_directories(SwiftToolchain::CoreFoundation SYSTEM INTERFACE ${swift_headers} ${swift_headers}/Block)
  # CoreFoundation's header calls major(), which glibc declares in another header.
  target_compile_options(SwiftToolchain::CoreFoundation INTERFACE -fblocks
    $<$<COMPILE_LANGUAGE:CXX,OBJCXX>:-includesys/sysmacros.h>)
  target_link_directories(SwiftToolchain::CoreFoundation INTERFACE ${swift_libraries})
  target_link_options(SwiftToolchain::CoreFoundation INTERFACE "LINKER:-rpath,${swift_libraries}")
  target_link_libraries(SwiftToolchain::CoreFoundation INTERFACE Foundation dispatch BlocksRuntime Threads::Threads)
endif()
