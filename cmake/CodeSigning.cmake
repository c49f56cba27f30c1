# palaver_codesign_options(VARIABLE IDENTITY): the options of codesign beyond the identity. A Developer ID signature has the
# hardened runtime and a time stamp, which notarization requires (Apple's documentation). An ad hoc signature (-) cannot have
# a time stamp.
function(palaver_codesign_options variable identity)
  set(options "")
  if(NOT identity STREQUAL "-")
    set(options --options runtime --timestamp)
  endif()
  set(${variable} ${options} PARENT_SCOPE)
endfunction()
