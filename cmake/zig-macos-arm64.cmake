# Cross build for macOS on Apple silicon, on any system, by the compiler driver of Zig: it brings clang, libc++, the
# C library's headers and a linker that signs, and needs no SDK of Apple's. Tried with Zig 0.17.
#
# The frameworks are stand-ins of ours: their headers, and lists of the symbols that they export (apple-stand-ins).
#
# PALAVER_ZIG, a variable or an environment variable: the path of the program zig.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 23.0)  # Darwin 23 is macOS 14
set(CMAKE_SYSTEM_PROCESSOR arm64)

# Trial compilations read this file anew, in projects of their own.
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

# CMake's modules for Darwin would ask Xcode for them and put -isysroot, -arch and -mmacosx-version-min on the command
# lines. The compiler's target says it all.
set(CMAKE_OSX_SYSROOT "" CACHE PATH "" FORCE)
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

get_filename_component(palaver_stand_ins "${CMAKE_CURRENT_LIST_DIR}/../apple-stand-ins" ABSOLUTE)
# Clang keeps to the first directory that has a framework at all, so the one with the headers comes first.
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
  # Zig adds checks to unoptimised code that call into a runtime of its own.
  set(CMAKE_${language}_FLAGS_DEBUG_INIT "-fno-sanitize=undefined")
endforeach()
set(CMAKE_ASM_COMPILER_ID Clang)  # which CMake does not find out for a compiler of two words
foreach(language CXX OBJCXX)
  # Zig's libc++ comes without Apple's markings of what a version of macOS brings; with them, a use of what macOS 14
  # lacks is an error.
  set(CMAKE_${language}_FLAGS_INIT "${palaver_frameworks} \
-U_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS -D_LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS=1")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-F${palaver_stand_ins}/cross/frameworks -L${palaver_stand_ins}/cross/lib")
set(CMAKE_AR "${PALAVER_ZIG}" CACHE FILEPATH "")
set(CMAKE_RANLIB "${PALAVER_ZIG}" CACHE FILEPATH "")
# Never run, but CMake refuses to set Objective-C++ up without one.
set(CMAKE_INSTALL_NAME_TOOL /bin/false CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
