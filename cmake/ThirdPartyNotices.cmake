# Writes the notices of everything that is linked into the programs for Linux, from the files that Debian's packages bring.

# Sets `variable` to the notices, or to nothing where a file is missing, as on other systems than Debian.
function(palaver_third_party_notices variable)
  # package; licence of the parts that are linked in; what links it
  set(parts
    "rapidjson-dev|MIT, BSD-3-Clause|PalaverSTTHelper, palaver-stt, PalaverSpeechWorker"
    "nlohmann-json3-dev|MIT|PalaverSTTHelper, palaver-stt, PalaverSpeechWorker"
    "libasio-dev|BSL-1.0|PalaverSTTHelper, palaver-stt, PalaverSpeechWorker"
    "libspeexdsp-dev|BSD-3-Clause|PalaverSTTHelper, palaver-stt"
    "libpocketsphinx-dev|BSD-2-Clause|PalaverSpeechWorker"
    "libsphinxbase-dev|BSD-2-Clause, BSD-3-Clause and similar|PalaverSpeechWorker"
    "flite1-dev|the permissive licences of Carnegie Mellon University, Cepstral and the University of Edinburgh|PalaverSpeechWorker"
    "libc6-dev|LGPL-2.1-or-later|PalaverSTTHelper"
    "libstdc++-12-dev|GPL-3.0-or-later with the GCC Runtime Library Exception|PalaverSTTHelper"
  )
  set(table "")
  set(texts "")
  set(line "================================================================================\n")
  foreach(part IN LISTS parts)
    string(REPLACE "|" ";" part "${part}")
    list(GET part 0 package)
    list(GET part 1 licence)
    list(GET part 2 programs)
    set(file /usr/share/doc/${package}/copyright)
    if(NOT EXISTS ${file})
      message(STATUS "No third-party notices: ${file} is missing")
      set(${variable} "" PARENT_SCOPE)
      return()
    endif()
    file(READ ${file} text)
    string(APPEND table "${package}\n  licence: ${licence}\n  linked into: ${programs}\n")
    string(APPEND texts "\n${line}${package}\n${line}\n${text}")
  endforeach()
  set(notices
    "Third-party notices\n\nThe programs contain parts of the libraries below, linked statically. The names are those of Debian's packages, whose\n"
    "copyright files follow. Those files also name scripts, tests and manuals, which are not linked in.\n\n${table}\n"
    "glibc is under the LGPL: everything that is needed to link PalaverSTTHelper with another version of it is the source of\n"
    "this program, and -DPALAVER_STATIC=OFF links it dynamically.\n"
    "Linked dynamically and not contained: glibc, libstdc++ and libgcc (PalaverSpeechWorker, palaver-stt), and, where\n"
    "it is installed, libsndfile (palaver-stt; LGPL-2.1-or-later).\n")
  if(PALAVER_PACKAGE_SHERPA)
    list(APPEND notices
      "Contained as libraries of their own in lib/palaver-stt: sherpa-onnx (Apache-2.0), with the libraries that it is built\n"
      "from, and ONNX Runtime (MIT, Copyright (c) Microsoft Corporation).\n")
  endif()
  string(CONCAT notices ${notices} "${texts}")
  set(${variable} "${notices}" PARENT_SCOPE)
endfunction()
