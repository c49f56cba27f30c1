# Installs the programs, and describes the packages that CPack makes of them. `./dev package` runs it.
#
# Components: Programs is in every package. Documentation is what an archive adds, in the places of other systems. Debian is
# what Debian's policy wants in its place; only CPack installs it.

include(GNUInstallDirs)
option(PALAVER_PACKAGE_SHERPA "Put the library of sherpa-onnx into the packages" OFF)
set(PALAVER_PACKAGE_CONTACT "The PalaverSTTHelper developers <developers@palaver-stt.invalid>" CACHE STRING
    "Who answers for the packages, as name <address>")

# The other places that state a version must agree with the project's.
file(READ ${PROJECT_SOURCE_DIR}/clients/node/package.json manifest)
string(JSON node_version GET "${manifest}" version)
file(STRINGS ${PROJECT_SOURCE_DIR}/clients/python/pyproject.toml python_version REGEX "^version = ")
foreach(stated "clients/node/package.json|${node_version}" "clients/python/pyproject.toml|${python_version}")
  string(REGEX REPLACE "(version = |\")" "" stated "${stated}")
  if(NOT stated MATCHES "\\|${PROJECT_VERSION}$")
    message(FATAL_ERROR "The version of ${stated} is not the project's, ${PROJECT_VERSION}")
  endif()
endforeach()

install(TARGETS PalaverSTTHelper RUNTIME COMPONENT Programs)
if(TARGET palaver-stt)
  install(TARGETS palaver-stt RUNTIME COMPONENT Programs)
  install(FILES packaging/completions/palaver-stt.bash RENAME palaver-stt COMPONENT Programs
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES packaging/completions/_palaver-stt COMPONENT Documentation
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()
if(TARGET PalaverSpeechWorker)
  install(TARGETS PalaverSpeechWorker RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/palaver-stt COMPONENT Programs)
endif()
install(FILES packaging/man/PalaverSTTHelper.1 packaging/man/palaver-stt.1 COMPONENT Documentation
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(documents ${CMAKE_INSTALL_DATADIR}/doc/palaver-stt)
install(FILES LICENSE CHANGELOG.md COMPONENT Documentation DESTINATION ${documents})
if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
  return()  # the rest is of Linux; a Mac's packages are Homebrew's and the application's own
endif()

if(PALAVER_PACKAGE_SHERPA)
  get_property(has_sherpa GLOBAL PROPERTY PALAVER_HAS_SHERPA)
  if(NOT has_sherpa)
    message(FATAL_ERROR "PALAVER_PACKAGE_SHERPA needs the engine: PALAVER_SHERPA_ROOT holds no unpacked wheel")
  endif()
  set(sherpa_folder ${PALAVER_SHERPA_ROOT}/sherpa_onnx/lib)
  install(PROGRAMS ${sherpa_folder}/libsherpa-onnx-c-api.so ${sherpa_folder}/libonnxruntime.so COMPONENT Programs
    DESTINATION lib/palaver-stt)  # where PalaverSpeechWorker searches it
endif()

include(cmake/ThirdPartyNotices.cmake)
palaver_third_party_notices(notices)
set(generated ${PROJECT_BINARY_DIR}/packaging)
if(NOT notices)
  return()  # without the notices there are no packages
endif()
file(READ LICENSE licence)
file(WRITE ${generated}/copyright "PalaverSTTHelper\n\n${licence}\n${notices}")
# Debian has the texts of the GNU licences in a package of its own; other systems need them here.
foreach(name LGPL-2.1 GPL-3 Apache-2.0)
  if(name STREQUAL "Apache-2.0" AND NOT PALAVER_PACKAGE_SHERPA)
    continue()
  endif()
  file(READ /usr/share/common-licenses/${name} text)
  string(APPEND notices "\n================================================================================\n${name}\n"
    "================================================================================\n\n${text}")
endforeach()
file(WRITE ${generated}/THIRD-PARTY-NOTICES "${notices}")
install(FILES ${generated}/THIRD-PARTY-NOTICES COMPONENT Documentation DESTINATION ${documents})

# Compresses a file as Debian's policy wants it, without a time.
function(palaver_gzip from to)
  execute_process(COMMAND gzip -9nc ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # follows SOURCE_DATE_EPOCH
file(WRITE ${generated}/changelog
  "palaver-stt (${PROJECT_VERSION}) stable; urgency=medium\n\n  * Release ${PROJECT_VERSION}.\n\n -- ${PALAVER_PACKAGE_CONTACT}  ${date}\n")
palaver_gzip(${generated}/changelog ${generated}/changelog.gz)
foreach(page PalaverSTTHelper.1 palaver-stt.1)
  palaver_gzip(${PROJECT_SOURCE_DIR}/packaging/man/${page} ${generated}/${page}.gz)
endforeach()
install(FILES ${generated}/copyright ${generated}/changelog.gz COMPONENT Debian EXCLUDE_FROM_ALL DESTINATION share/doc/palaver-stt)
install(FILES ${generated}/PalaverSTTHelper.1.gz ${generated}/palaver-stt.1.gz COMPONENT Debian EXCLUDE_FROM_ALL
  DESTINATION share/man/man1)
install(FILES packaging/completions/_palaver-stt COMPONENT Debian EXCLUDE_FROM_ALL DESTINATION share/zsh/vendor-completions)
install(FILES packaging/debian/lintian-overrides RENAME palaver-stt COMPONENT Debian EXCLUDE_FROM_ALL
  DESTINATION share/lintian/overrides)

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME palaver-stt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The PalaverSTTHelper developers")
set(CPACK_PACKAGE_CONTACT ${PALAVER_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "turn meeting audio into text on the device")
set(CPACK_PACKAGE_FILE_NAME palaver-stt-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/PackageComponents.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/SortArchive.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(PALAVER_PACKAGE_SHERPA)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${sherpa_folder})
endif()
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pocketsphinx-en-us, libsndfile1")  # palaver-stt loads libsndfile at run time
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A host starts PalaverSTTHelper as a child process, writes JSON commands with
16 kHz audio of both sides of a meeting to it, and reads partial and final
transcripts with their times. No audio and no word leaves the machine.
.
palaver-stt, the command line tool, transcribes recordings, finds out why a
meeting has no transcript, and manages speech models. English works with the
recommended model of PocketSphinx.")
include(CPack)
