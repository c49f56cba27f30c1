// Loads libsndfile at run time, so that programs start where it is not installed.
#pragma once

#include <sndfile.h>

#include <memory>
#include <span>

namespace palaver {

// The functions of libsndfile that are used. Any thread.
struct SndfileLibrary {
  decltype(&sf_open) open;
  decltype(&sf_close) close;
  decltype(&sf_readf_float) readFloat;
  decltype(&sf_error) error;
  decltype(&sf_strerror) errorText;

  // Loads the first of the files that there is, by the rules of dlopen(3). Returns null when there is none.
  // The library stays loaded.
  static std::unique_ptr<const SndfileLibrary> load(std::span<const char* const> files);

  // Returns the system's library, or null where it is not installed. Loads it once.
  static const SndfileLibrary* installed();
};

}  // namespace palaver
