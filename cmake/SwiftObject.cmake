# Compiles Swift without CMake's Swift support, which does not pass the deployment target with Ninja. Defines
#
#   palaver_swift_object(OBJECT SOURCE file MODULE name [FLAGS ...] [DEPENDS ...])
#     compiles one file as Swift 6, with warnings as errors, to the object file OBJECT, which a target names as a source.
#   PalaverSwift::Runtime
#     the libraries that a program with such objects links.
#
# PALAVER_SWIFTC is the compiler with the options of every compilation. The branch for a Mac is not verified.

if(APPLE)
  execute_process(COMMAND xcrun --sdk macosx --show-sdk-path
    OUTPUT_VARIABLE swift_sdk OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND xcrun --sdk macosx --find swiftc
    OUTPUT_VARIABLE swift_program OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  cmake_path(GET swift_program PARENT_PATH swift_toolchain)
  cmake_path(GET swift_toolchain PARENT_PATH swift_toolchain)
  if(NOT CMAKE_OSX_DEPLOYMENT_TARGET)
    message(FATAL_ERROR "Swift needs CMAKE_OSX_DEPLOYMENT_TARGET, such as 14.0")
  endif()
  set(PALAVER_SWIFTC ${swift_program} -sdk ${swift_sdk} -target arm64-apple-macos${CMAKE_OSX_DEPLOYMENT_TARGET})
else()
  include(${CMAKE_CURRENT_LIST_DIR}/SwiftToolchain.cmake)
  set(PALAVER_SWIFTC ${SWIFTC})
endif()
list(APPEND PALAVER_SWIFTC -parse-as-library -wmo -swift-version 6)
if(CMAKE_BUILD_TYPE MATCHES "Rel")
  list(APPEND PALAVER_SWIFTC -O)
endif()

function(palaver_swift_object object)
  cmake_parse_arguments(SWIFT "" "SOURCE;MODULE" "FLAGS;DEPENDS" ${ARGN})
  add_custom_command(OUTPUT ${object}
    COMMAND ${PALAVER_SWIFTC} -warnings-as-errors -g -emit-object -module-name ${SWIFT_MODULE} ${SWIFT_FLAGS}
            ${SWIFT_SOURCE} -o ${object}
    DEPENDS ${SWIFT_SOURCE} ${SWIFT_DEPENDS}
    COMMENT "Compiling ${SWIFT_MODULE} (Swift)"
    COMMAND_EXPAND_LISTS VERBATIM
  )
  set_source_files_properties(${object} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
endfunction()

if(NOT TARGET PalaverSwift::Runtime)
  add_library(PalaverSwift::Runtime INTERFACE IMPORTED)
  if(APPLE)
    # The objects name the libraries and frameworks that they need.
    target_link_directories(PalaverSwift::Runtime INTERFACE
      ${swift_sdk}/usr/lib/swift ${swift_toolchain}/lib/swift/macosx)
    target_link_options(PalaverSwift::Runtime INTERFACE "LINKER:-rpath,/usr/lib/swift")
  else()
    set(swift_libraries ${SWIFT_TOOLCHAIN}/lib/swift/linux)
    target_link_directories(PalaverSwift::Runtime INTERFACE ${swift_libraries})
    target_link_options(PalaverSwift::Runtime INTERFACE "LINKER:-rpath,${swift_libraries}")
    target_link_libraries(PalaverSwift::Runtime INTERFACE
      ${swift_libraries}/${CMAKE_SYSTEM_PROCESSOR}/swiftrt.o Foundation FoundationEssentials
      FoundationInternationalization dispatch BlocksRuntime swiftCore swift_Concurrency swiftSwiftOnoneSupport
      swift_StringProcessing swiftDispatch swiftGlibc Threads::Threads)
  endif()
endif()
