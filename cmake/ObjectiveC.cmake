# Enables Objective-C++ with ARC. On Linux clang emits code for Apple's runtime, which apple-stand-ins implements.
if(NOT APPLE)
  # CMake does not search the PATH for this compiler.
  set(CMAKE_OBJCXX_COMPILER "${CMAKE_CXX_COMPILER}" CACHE FILEPATH "The Objective-C++ compiler" FORCE)
endif()
enable_language(OBJCXX)

# Sets the options of a target with Objective-C++ sources. Call it after palaver_options.
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
