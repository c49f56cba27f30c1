// Names the two audio streams of a meeting.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace palaver {

enum class AudioSource {
  remote,     // the far side of the call
  selfAudio,  // the user's own microphone
};

inline constexpr std::array allAudioSources{AudioSource::remote, AudioSource::selfAudio};

constexpr std::string_view rawValue(AudioSource source) {
  return source == AudioSource::remote ? "remote" : "self";
}

// Parses a source's name on the wire. Returns none for any other text.
constexpr std::optional<AudioSource> audioSource(std::string_view rawValue) {
  if (rawValue == "remote") return AudioSource::remote;
  if (rawValue == "self") return AudioSource::selfAudio;
  return std::nullopt;
}

}  // namespace palaver
