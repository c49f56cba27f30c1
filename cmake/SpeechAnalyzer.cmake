# Decides, before anything else, whether a build on a Mac includes the analyzer of macOS 26. It needs the SDK of macOS 26 or
# later. Included before project(), so that its message is the first line of the configuration.
#
# PALAVER_SDK_HAS_SPEECH_ANALYZER: the result. Off on other systems and in cross builds, which have no SDK.
# PALAVER_REQUIRE_ANALYZER: makes an older SDK an error. On by default for the build type Release, which may be shipped.
set(PALAVER_SDK_HAS_SPEECH_ANALYZER OFF)
if(CMAKE_HOST_APPLE AND NOT CMAKE_TOOLCHAIN_FILE)
  set(require_analyzer OFF)
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    set(require_analyzer ON)
  endif()
  option(PALAVER_REQUIRE_ANALYZER "On a Mac: fail without the SDK of macOS 26" ${require_analyzer})
  execute_process(COMMAND xcrun --sdk macosx --show-sdk-version
    OUTPUT_VARIABLE sdk_version OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE sdk_missing ERROR_QUIET)
  if(sdk_missing)
    set(sdk_version "none")
  endif()
  if(NOT sdk_missing AND sdk_version VERSION_GREATER_EQUAL 26)
    set(PALAVER_SDK_HAS_SPEECH_ANALYZER ON)
    message(STATUS "With SpeechAnalyzer: the macOS SDK is ${sdk_version}")
  elseif(PALAVER_REQUIRE_ANALYZER)
    message(FATAL_ERROR "SpeechAnalyzer needs the SDK of macOS 26 (Xcode 26), but the macOS SDK is ${sdk_version}. "
      "Select another Xcode with xcode-select, or build without it by -DPALAVER_REQUIRE_ANALYZER=OFF")
  else()
    message(STATUS "WITHOUT SpeechAnalyzer: it needs the SDK of macOS 26 (Xcode 26), but the macOS SDK is ${sdk_version}. "
      "On macOS 26 this helper reports that it is unavailable")
  endif()
endif()
