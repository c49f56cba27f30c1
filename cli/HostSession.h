// A whole session of a host: starts the helper, streams audio in real time, and ends everything in order.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/ChildProcess.h"
#include "cli/HostObserver.h"
#include "cli/LineSplitter.h"
#include "cli/SoundSource.h"
#include "core/AudioSource.h"

namespace palaver::host {

// How long a host waits before it gives up, in ms of wall clock.
struct HostLimits {
  double status = 30000;    // for the first status: the helper may have to ask its system
  double ready = 60000;     // for the session: a model may have to be loaded
  double reason = 3000;     // for the status that explains why a session is not available
  double settle = 1500;     // of silence after the last audio, in any case: endpointing takes 900
  double firstText = 5000;  // of silence, while a source that spoke has no text at all yet
  double finals = 15000;    // of silence, until the finals of both sources are there
  double stopped = 15000;   // for the end of the session, and again for the end of the helper
  double stall = 15000;     // while the helper reads nothing of what is written to it
};

struct HostConfiguration {
  std::vector<std::string> helper;  // the program's path, and arguments if any
  std::string sessionId = "session-1";
  std::string locale = "en-US";
  std::vector<std::string> vocabulary;
  double speed = 1;  // audio seconds a second; above 0. Other than 1, silence is cut off by the wrong clock
  HostLimits limits;
};

// One session over one helper, in one loop that never blocks on either of the helper's streams: whoever
// writes to a child without reading from it will deadlock one day.
//
// A chunk is due when its last sample has been captured, on an absolute schedule, so that delays do not add
// up; its "capturedAt" follows the audio. A helper that is slow to read holds the stream back.
class HostSession {
 public:
  // `self` may be null: then only the remote source is streamed. The observer outlives the session.
  HostSession(HostConfiguration configuration, std::unique_ptr<SoundSource> remote,
              std::unique_ptr<SoundSource> self, HostObserver& observer);

  // Runs the session to its end and returns whether all went right: ready, streamed, every final there, no
  // error event, and the helper ended with status 0. Blocks; call once. Throws std::system_error when the
  // helper cannot be started.
  bool run();

  // Ends the session early and in order: no more audio, the helper's input is closed, its last finals are
  // read. run() then returns false. Safe from any thread and from a signal handler.
  void interrupt() noexcept;

 private:
  using SteadyClock = std::chrono::steady_clock;

  enum class Phase {
    awaitingStatus,
    awaitingReady,
    awaitingReason,  // the session is not available; a status that says why may follow
    streaming,
    draining,  // silence, until the finals are there
    stopping,  // "session.stop" was sent
    closing,   // the helper's input is closed
    done,
  };

  struct Stream {
    std::unique_ptr<SoundSource> sound;  // null when not streamed
    std::int64_t sequence = 0;
    bool ended = false;
    bool spoke = false;         // something loud was sent
    bool ready = false;         // its own "session.ready" came
    bool gotText = false;       // a partial or a final came
    std::string openUtterance;  // the utterance with partials and no final yet; empty when none is
  };

  void waitForSomething();
  void readHelper();
  void readOutput();
  void readDiagnostics();
  void handleLine(std::string_view line);
  void handleEvent(const nlohmann::json& event);
  void handleReady(const nlohmann::json& event);
  void handleTranscript(const nlohmann::json& event, bool isFinal);
  void advance();
  void sendDueChunks();
  void sendChunk(AudioSource source, double capturedAt);
  bool finalsAreThere() const;
  void endEarly();
  void closeHelper();
  void handleExit();
  void enter(Phase phase);
  void startStreaming();
  void problem(std::string_view message);
  void giveUp(std::string_view message);  // a problem that ends the session

  double inPhase() const;               // ms since the phase began
  SteadyClock::time_point due() const;  // of the next chunk
  bool isStreaming() const { return phase_ == Phase::streaming || phase_ == Phase::draining; }
  Stream& stream(AudioSource source) { return streams_[static_cast<std::size_t>(source)]; }

  HostConfiguration configuration_;
  HostObserver& observer_;
  std::array<Stream, allAudioSources.size()> streams_;  // by AudioSource
  Pipe interruption_;                                   // a byte in it wakes and interrupts the loop
  std::unique_ptr<ChildProcess> helper_;
  LineSplitter outputLines_;
  LineSplitter diagnosticLines_;

  Phase phase_ = Phase::awaitingStatus;
  SteadyClock::time_point phaseStart_;
  SteadyClock::time_point streamStart_;
  SteadyClock::time_point lastProgress_;    // when the helper last read, or had no reason to
  std::size_t lastQueued_ = 0;              // bytes, when that was last looked at
  SteadyClock::time_point lastTranscript_;  // when the last transcript event came
  double startedAt_ = 0;                    // wall clock at streamStart_, ms since the Unix epoch
  double total_ = 0;                        // ms of audio to stream
  std::int64_t chunks_ = 0;                 // of each source, sent so far
  std::string statusMessage_;               // of the newest "helper.status"
  bool ok_ = true;
  int signalsSent_ = 0;  // to a helper that does not end
};

}  // namespace palaver::host
