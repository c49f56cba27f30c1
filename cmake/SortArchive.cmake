# Packs CPack's archive again with its files in the order of their names. CPack takes the order of the file system, which
# differs between machines.

foreach(file IN LISTS CPACK_PACKAGE_FILES)
  if(file MATCHES "\\.tar\\.gz$")
    execute_process(COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/../tools/package/pack.py ${CPACK_TEMPORARY_INSTALL_DIRECTORY} ${file}
      ${CPACK_PACKAGE_FILE_NAME} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
