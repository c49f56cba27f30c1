# Chooses what CPack installs into each kind of package.

set(folder ${CPACK_INSTALL_CMAKE_PROJECTS})
list(GET folder 0 folder)
if(CPACK_GENERATOR STREQUAL "DEB")
  set(extra Debian)
else()
  set(extra Documentation)
endif()
set(CPACK_INSTALL_CMAKE_PROJECTS "${folder};PalaverSTTHelper;Programs;/;${folder};PalaverSTTHelper;${extra};/")
