// The two audio streams of a meeting.
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

// The source's name on the wire.
constexpr std::string_view rawValue(AudioSource source) {
  return source == AudioSource::remote ? "remote" : "self";
}

// The source of a name on the wire, or none.
constexpr std::optional<AudioSource> audioSource(std::string_view rawValue) {
  if (rawValue == "remote") return AudioSource::remote;
  if (rawValue == "self") return AudioSource::selfAudio;
  return std::nullopt;
}

}  // namespace palaver
