#include "bench/Load.h"
#include "core/Base64Encoding.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string_view>

namespace palaver::bench {

namespace {

constexpr std::size_t chunkCount = 64;
constexpr std::array amplitudes{30.0, 120.0, 400.0, 3000.0,
                                12000.0};          // standard deviations of 16-bit samples
constexpr double firstCapture = 1763674839123.25;  // ms since the Unix epoch

// Writes the bytes to stdout, by copy or by reference. Falls back to copying when stdout is not a pipe. Bytes
// passed by reference must stay unchanged until they have been read.
bool give(std::string_view bytes, bool& byReference) {
  while (!bytes.empty()) {
    ssize_t count;
    if (byReference) {
      const iovec piece{const_cast<char*>(bytes.data()), bytes.size()};
      count = ::vmsplice(STDOUT_FILENO, &piece, 1, 0);
      if (count < 0 && (errno == EINVAL || errno == EBADF || errno == ENOSYS)) {
        byReference = false;
        continue;
      }
    } else {
      count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    }
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

Load::Load(int sessions, std::size_t framesPerLine) : framesPerLine_(framesPerLine) {
  std::mt19937 random(7);
  for (std::size_t k = 0; k < chunkCount; ++k) {
    std::normal_distribution<double> noise(0, amplitudes[k % amplitudes.size()]);
    std::vector<std::int16_t> samples(framesPerLine);
    for (auto& sample : samples)
      sample = static_cast<std::int16_t>(std::clamp(noise(random), -32768.0, 32767.0));
    chunks_.push_back(encodePCM(samples));
  }
  for (int i = 0; i < sessions; ++i) {
    char id[37];
    std::snprintf(id, sizeof id, "%08X-%04X-4%03X-A%03X-%08X%04X", static_cast<unsigned>(random()),
                  static_cast<unsigned>(random() & 0xFFFF), static_cast<unsigned>(random() & 0xFFF),
                  static_cast<unsigned>(random() & 0xFFF), static_cast<unsigned>(random()),
                  static_cast<unsigned>(random() & 0xFFFF));
    opening_ += R"({"type":"session.start","sessionId":")" + std::string(id) + "\"}\n";
    sessionIds_.emplace_back(id);
  }
}

std::string Load::line(std::size_t sequence) const {
  const std::size_t sessions = sessionIds_.size();
  char head[192];
  std::snprintf(
      head, sizeof head,
      R"({"type":"audio","sessionId":"%s","source":"%s","sequence":%zu,"capturedAt":%.4f,"pcmBase64":")",
      sessionIds_[sequence % sessions].c_str(), sequence / sessions % 2 ? "remote" : "self", sequence,
      firstCapture +
          static_cast<double>(framesPerLine_) / 16.0 * static_cast<double>(sequence / (2 * sessions)) +
          static_cast<double>(sequence * 37 % 101) / 101);
  return head + chunks_[sequence % chunkCount] + "\"}\n";
}

std::string Load::lines(std::size_t count) const {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += line(i);
  return text;
}

int runWriter(const Load& load, std::size_t lines, bool byReference) {
  constexpr std::size_t mostBytes = std::size_t{18} << 20;  // in memory, written repeatedly
  const std::size_t most = mostBytes / load.line(0).size();
  const std::string many = load.lines(std::min(lines, most));
  const std::string rest = load.lines(lines % most);
  bool written = give(load.opening(), byReference);
  for (std::size_t i = 0; written && i < lines / most; ++i) written = give(many, byReference);
  if (written) written = give(rest, byReference);
  return written ? 0 : 1;
}

}  // namespace palaver::bench
