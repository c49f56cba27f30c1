# Embeds the property list in an executable without a bundle, and signs it.

include(${CMAKE_CURRENT_LIST_DIR}/CodeSigning.cmake)

set(PALAVER_CODESIGN_IDENTITY "-" CACHE STRING
  "On a Mac: the identity to sign the helper with; - signs ad hoc, and then a permission is lost with the next build")

set(PALAVER_INFO_PLIST ${PROJECT_SOURCE_DIR}/platform/macos/Info.plist)
file(READ ${PALAVER_INFO_PLIST} info_plist)
foreach(key CFBundleShortVersionString CFBundleVersion)
  if(NOT info_plist MATCHES "<key>${key}</key>[ \t\r\n]*<string>([^<]*)</string>"
      OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${PALAVER_INFO_PLIST}: ${key} is not the project's version, ${PROJECT_VERSION}")
  endif()
endforeach()
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PALAVER_INFO_PLIST})

enable_language(ASM)

# Embeds the property list in the executable and, on a Mac, signs it after linking. The linker's own signature does not
# cover the property list, so the system would not trust it.
function(palaver_macos_program target)
  set(assembly ${PROJECT_SOURCE_DIR}/platform/macos/InfoPlist.S)
  target_sources(${target} PRIVATE ${assembly})
  set_source_files_properties(${assembly} PROPERTIES
    INCLUDE_DIRECTORIES ${PROJECT_SOURCE_DIR}/platform/macos
    OBJECT_DEPENDS ${PALAVER_INFO_PLIST}
  )
  if(CMAKE_HOST_APPLE)
    palaver_codesign_options(codesign_options ${PALAVER_CODESIGN_IDENTITY})
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
      COMMAND codesign --force --sign ${PALAVER_CODESIGN_IDENTITY} ${codesign_options}
              --identifier app.palaver.stthelper $<TARGET_FILE:${target}>
      COMMENT "Signing ${target}")
  endif()
endfunction()
