# Sets the options of every target of the project.

set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

function(palaver_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wshadow -Wconversion -Wsign-conversion)
  if(NOT PALAVER_BUILD_PATHS)
    # The place of the sources must not change a package's bytes.
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
  endif()
  if(APPLE)
    target_include_directories(${target} SYSTEM PRIVATE ${PALAVER_HEADER_LIBRARIES})
    # An API of a later macOS than the oldest supported one requires a check.
    target_compile_options(${target} PRIVATE -Werror=unguarded-availability)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Asio searches only the former header of clang's coroutines.
    target_compile_definitions(${target} PRIVATE ASIO_HAS_CO_AWAIT ASIO_HAS_STD_COROUTINE)
    if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 17)
      # Clang supports them but does not define the feature macro.
      target_compile_definitions(${target} PRIVATE __cpp_impl_coroutine=201902L)
    endif()
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # A false positive for a literal before a string when optimising (GCC bug 105651).
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  # Otherwise Asio allocates in one of two ways, depending on which header a source includes first, and may free in
  # the other.
  target_compile_definitions(${target} PRIVATE ASIO_DISABLE_STD_ALIGNED_ALLOC)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND PALAVER_SANITIZE)
    # GCC's flow warnings are unreliable in instrumented code.
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
  if(PALAVER_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${PALAVER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${PALAVER_SANITIZE})
  endif()
  if(PALAVER_SANITIZE MATCHES "thread")
    # The sanitizer does not support fences, and GCC rejects them. The queues' mutexes order all accesses.
    target_compile_definitions(${target} PRIVATE ASIO_DISABLE_FENCED_BLOCK)
  endif()
  if(PALAVER_SANITIZE MATCHES "undefined" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # RapidJSON adds to the null pointer of its empty stack, which only clang reports. Clang 14 cannot check calls of
    # coroutines.
    target_compile_options(${target} PRIVATE -fno-sanitize=pointer-overflow,function)
  endif()
  if(PALAVER_FUZZERS)
    # Instruments coverage for the fuzzers.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

function(palaver_library target)
  add_library(${target} STATIC ${ARGN})
  palaver_options(${target})
endfunction()
