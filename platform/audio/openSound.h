// Opens sound files of any container.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "platform/audio/SampleFormat.h"
#include "platform/audio/SampleReader.h"

namespace palaver {

struct SndfileLibrary;

// Opens a WAV file or, when the name ends in ".raw", headerless samples. Opens other containers with
// `library`, which may be null. Throws std::runtime_error with the path and the reason.
std::unique_ptr<SampleReader> openSound(const std::string& path, const RawFormat& raw,
                                        const SndfileLibrary* library);

// Returns the name of the container that begins so, such as "FLAC", or an empty text for an unknown one. Any
// thread.
std::string containerOf(std::span<const std::uint8_t> firstBytes);

}  // namespace palaver
