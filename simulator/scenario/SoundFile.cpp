#include "simulator/scenario/SoundFile.h"

#include <sndfile.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

namespace palaver {

namespace {

int find(const std::map<std::string, int>& formats, const std::string& name) {
  const auto found = formats.find(name);
  if (found == formats.end()) throw std::runtime_error("unknown kind of sound file: " + name);
  return found->second;
}

int formatOf(const SoundFileDescription& description) {
  static const std::map<std::string, int> containers{
      {"wav", SF_FORMAT_WAV}, {"flac", SF_FORMAT_FLAC}, {"aiff", SF_FORMAT_AIFF}, {"ogg", SF_FORMAT_OGG}};
  static const std::map<std::string, int> encodings{
      {"int16", SF_FORMAT_PCM_16}, {"int24", SF_FORMAT_PCM_24}, {"float", SF_FORMAT_FLOAT}};
  const int container = find(containers, description.container);
  return container | (container == SF_FORMAT_OGG ? SF_FORMAT_VORBIS : find(encodings, description.encoding));
}

}  // namespace

void writeSoundFile(const std::filesystem::path& path, const SoundFileDescription& description) {
  SF_INFO info{};
  info.samplerate = description.sampleRate;
  info.channels = description.channels;
  info.format = formatOf(description);
  const std::unique_ptr<SNDFILE, decltype(&sf_close)> file(sf_open(path.c_str(), SFM_WRITE, &info),
                                                           &sf_close);
  if (!file) throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));

  constexpr std::int64_t run = 16000;  // frames at a time
  std::vector<float> samples;
  for (std::int64_t written = 0; written < description.frames;) {
    const auto frames = std::min(run, description.frames - written);
    samples.resize(static_cast<std::size_t>(frames * description.channels));
    // A square wave of 400 Hz at 16 kHz. Its root mean square is its amplitude.
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const auto frame = written + static_cast<std::int64_t>(i) / description.channels;
      samples[i] = static_cast<float>(frame / 20 % 2 == 0 ? description.loudness : -description.loudness);
    }
    if (sf_writef_float(file.get(), samples.data(), frames) != frames)
      throw std::runtime_error(path.string() + ": " + sf_strerror(file.get()));
    written += frames;
  }
}

}  // namespace palaver
