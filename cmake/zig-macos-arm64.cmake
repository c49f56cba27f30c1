# Cross-builds for macOS on Apple silicon with Zig's compiler driver, on any system. Zig includes clang, libc++, the C
# library's headers and a linker that signs. No SDK of Apple is needed. Tried with Zig 0.17.
#
# The frameworks are stand-ins: headers, and lists of the symbols that they export (apple-stand-ins).
#
# PALAVER_ZIG: path of the program zig, as a variable or an environment variable.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 23.0)  # Darwin 23 is macOS 14
set(CMAKE_SYSTEM_PROCESSOR arm64)

# Trial compilations read this file again, in separate projects.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PALAVER_ZIG)
if(NOT PALAVER_ZIG)
  set(PALAVER_ZIG "$ENV{PALAVER_ZIG}")
endif()
if(NOT PALAVER_ZIG)
  find_program(PALAVER_ZIG zig)
endif()
if(NOT PALAVER_ZIG)
  message(FATAL_ERROR "Zig is needed: set PALAVER_ZIG to the path of the program zig, or put it on the PATH")
endif()
set(PALAVER_ZIG "${PALAVER_ZIG}" CACHE FILEPATH "The program zig" FORCE)

# Otherwise CMake's modules for Darwin query Xcode for them and add -isysroot, -arch and -mmacosx-version-min. The
# compiler's target replaces them.
set(CMAKE_OSX_SYSROOT "" CACHE PATH "" FORCE)
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

get_filename_component(palaver_stand_ins "${CMAKE_CURRENT_LIST_DIR}/../apple-stand-ins" ABSOLUTE)
# Clang uses the first directory that has the framework, so the one with the headers comes first.
set(palaver_frameworks "-F${palaver_stand_ins}/frameworks -F${palaver_stand_ins}/cross/frameworks")

foreach(language C CXX OBJC OBJCXX ASM)
  if(language MATCHES "CXX")
    set(CMAKE_${language}_COMPILER "${PALAVER_ZIG}" c++)
  else()
    set(CMAKE_${language}_COMPILER "${PALAVER_ZIG}" cc)
  endif()
  set(CMAKE_${language}_COMPILER_TARGET aarch64-macos.14.0)  # as Zig spells it
  set(CMAKE_${language}_ARCHIVE_CREATE "\"${PALAVER_ZIG}\" ar qc <TARGET> <LINK_FLAGS> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_APPEND "\"${PALAVER_ZIG}\" ar q <TARGET> <LINK_FLAGS> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_FINISH "")
  # Zig adds checks to unoptimised code that call its own runtime.
  set(CMAKE_${language}_FLAGS_DEBUG_INIT "-fno-sanitize=undefined")
endforeach()
set(CMAKE_ASM_COMPILER_ID Clang)  # which CMake does not find out for a compiler of two words
foreach(language CXX OBJCXX)
  # Enables Apple's availability annotations in Zig's libc++: a use of what macOS 14 lacks is then an error.
  set(CMAKE_${language}_FLAGS_INIT "${palaver_frameworks} \
-U_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS -D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=1")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-F${palaver_stand_ins}/cross/frameworks -L${palaver_stand_ins}/cross/lib")
set(CMAKE_AR "${PALAVER_ZIG}" CACHE FILEPATH "")
set(CMAKE_RANLIB "${PALAVER_ZIG}" CACHE FILEPATH "")
# Never run, but CMake requires one for Objective-C++.
set(CMAKE_INSTALL_NAME_TOOL /bin/false CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
