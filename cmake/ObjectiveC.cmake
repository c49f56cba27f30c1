# Objective-C++ with ARC: on macOS as it comes; on Linux with clang, which writes what Apple's runtime reads, for the
# runtime and the frameworks of apple-stand-ins.
if(NOT APPLE)
  # CMake does not look for this one on the PATH.
  set(CMAKE_OBJCXX_COMPILER "${CMAKE_CXX_COMPILER}" CACHE FILEPATH "The Objective-C++ compiler" FORCE)
endif()
enable_language(OBJCXX)

# The options of a target, already made by palaver_options, that has sources in Objective-C++.
function(palaver_objcxx target)
  set_target_properties(${target} PROPERTIES OBJCXX_STANDARD 20 OBJCXX_STANDARD_REQUIRED ON OBJCXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>)
  if(NOT APPLE)
    target_compile_options(${target} PRIVATE -fblocks
      "$<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-runtime=macosx-14.0;-fobjc-exceptions>")
    target_include_directories(${target} SYSTEM PRIVATE ${PROJECT_SOURCE_DIR}/apple-stand-ins/objc/include)
    target_compile_options(${target} PRIVATE "$<$<COMPILE_LANGUAGE:OBJCXX>:-F${PROJECT_SOURCE_DIR}/apple-stand-ins/frameworks>")
  endif()
endfunction()
