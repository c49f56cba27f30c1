#include "platform/audio/openSound.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/audio/SampleFile.h"
#include "platform/audio/SoundFile.h"
#include "platform/audio/WaveHeader.h"

namespace palaver {

namespace {

std::runtime_error unreadable(const std::string& path, const std::string& reason) {
  return std::runtime_error("cannot read " + path + ": " + reason);
}

// Throws unless the path names a non-empty file. Messages of libraries for these cases are vague.
std::uintmax_t sizeOfFile(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) throw unreadable(path, "there is no such file");
  if (error) throw unreadable(path, error.message());
  if (status.type() == std::filesystem::file_type::directory) throw unreadable(path, "it is a directory");
  if (status.type() != std::filesystem::file_type::regular)
    throw unreadable(path, "it is not a regular file");
  const auto size = std::filesystem::file_size(path, error);
  if (error) throw unreadable(path, error.message());
  if (size == 0) throw unreadable(path, "the file is empty");
  return size;
}

std::string withoutPeriod(std::string message) {
  while (!message.empty() && (message.back() == '.' || message.back() == '\n')) message.pop_back();
  return message;
}

std::unique_ptr<SampleReader> openWithLibrary(const std::string& path, const std::string& container,
                                              const SndfileLibrary* library) {
  if (!library)
    throw unreadable(
        path, (container.empty() ? "it is no WAV file, and other sound files need" : container + " needs") +
                  " libsndfile: apt-get install libsndfile1, on a Mac brew install libsndfile");
  try {
    return std::make_unique<SoundFile>(path, *library);
  } catch (const PlatformError& error) {
    throw unreadable(path, "not a readable sound file: " + withoutPeriod(error.what()));
  }
}

}  // namespace

std::string containerOf(std::span<const std::uint8_t> firstBytes) {
  using Magic = std::pair<std::string_view, const char*>;
  static constexpr std::array<Magic, 9> magics{{{"RIFF", "WAV"},
                                                {"RF64", "WAV"},
                                                {"BW64", "WAV"},
                                                {"fLaC", "FLAC"},
                                                {"OggS", "Ogg"},
                                                {"FORM", "AIFF"},
                                                {"caff", "CAF"},
                                                {".snd", "AU"},
                                                {"ID3", "MP3"}}};
  const std::string_view text(reinterpret_cast<const char*>(firstBytes.data()), firstBytes.size());
  for (const auto& [magic, name] : magics)
    if (text.starts_with(magic)) return name;
  return "";
}

std::unique_ptr<SampleReader> openSound(const std::string& path, const RawFormat& raw,
                                        const SndfileLibrary* library) {
  const auto size = sizeOfFile(path);
  auto stream = std::make_unique<std::ifstream>(path, std::ios::binary);
  if (!*stream) throw unreadable(path, std::generic_category().message(errno));
  if (path.ends_with(".raw")) {
    if (size % sizeof(std::int16_t) != 0)
      throw unreadable(path, "it is not 16-bit audio: it has an odd number of bytes");
    return std::make_unique<SampleFile>(SampleFile::openRaw(std::move(stream), size, raw));
  }
  std::array<std::uint8_t, 12> first{};
  stream->read(reinterpret_cast<char*>(first.data()), first.size());
  const auto start = std::span(first).first(static_cast<std::size_t>(stream->gcount()));
  auto container = containerOf(start);
  if (!isWave(start)) return openWithLibrary(path, container, library);
  try {
    stream->clear();
    stream->seekg(0);
    return std::make_unique<SampleFile>(SampleFile::openWave(std::move(stream), size));
  } catch (const UnknownWaveEncoding&) {
    return openWithLibrary(path, "this encoding of WAV", library);
  } catch (const std::runtime_error& error) {
    throw unreadable(path, std::string("not a readable sound file: ") + error.what());
  }
}

}  // namespace palaver
