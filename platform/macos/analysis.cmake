# palaver_apple_analysis: speech analysis with the frameworks of macOS 26. Requires the SDK of macOS 26. Without it
# PALAVER_HAS_SPEECH_ANALYZER is off, and the platform uses the absent service of platform/posix. The C++ part is still
# compiled, so that the cross build, which has no Swift for macOS, checks that it compiles.
#
# cmake/SpeechAnalyzer.cmake looks for the SDK.
#
# On Linux the tests set PALAVER_SPEECH_MODULES to a target that stands in for the frameworks. Its INTERFACE directories
# hold their modules.

if(PALAVER_SPEECH_MODULES)
  set(PALAVER_HAS_SPEECH_ANALYZER ON)
else()
  set(PALAVER_HAS_SPEECH_ANALYZER ${PALAVER_SDK_HAS_SPEECH_ANALYZER})
endif()

if(PALAVER_HAS_SPEECH_ANALYZER)
  include(${PROJECT_SOURCE_DIR}/cmake/SwiftObject.cmake)
  set(bridge_source ${PROJECT_SOURCE_DIR}/platform/macos/SpeechAnalyzerBridge.swift)
  set(bridge_header ${PROJECT_SOURCE_DIR}/platform/macos/SpeechAnalyzerBridge.h)
  set(bridge_flags -import-objc-header ${bridge_header})
  if(PALAVER_SPEECH_MODULES)
    get_target_property(module_directories ${PALAVER_SPEECH_MODULES} INTERFACE_INCLUDE_DIRECTORIES)
    list(TRANSFORM module_directories PREPEND -I OUTPUT_VARIABLE module_flags)
    list(APPEND bridge_flags ${module_flags})
  endif()
  set(bridge_object ${CMAKE_CURRENT_BINARY_DIR}/SpeechAnalyzerBridge.o)
  palaver_swift_object(${bridge_object} SOURCE ${bridge_source} MODULE SpeechAnalyzerBridge
    FLAGS ${bridge_flags} DEPENDS ${bridge_header} ${PALAVER_SPEECH_MODULES})

else()
  set(bridge_object "")
endif()

palaver_library(palaver_apple_analysis
  ${PROJECT_SOURCE_DIR}/platform/macos/AppleSpeechAnalysis.cpp
  ${PROJECT_SOURCE_DIR}/platform/macos/LocaleReservations.cpp
  ${PROJECT_SOURCE_DIR}/platform/macos/PendingAnswers.cpp
  ${PROJECT_SOURCE_DIR}/platform/macos/ResultQueue.cpp
  ${bridge_object}
)
target_link_libraries(palaver_apple_analysis PUBLIC palaver)
if(PALAVER_HAS_SPEECH_ANALYZER)
  target_link_libraries(palaver_apple_analysis PUBLIC ${PALAVER_SPEECH_MODULES} PalaverSwift::Runtime)
endif()
