// Runs one session of a host: starts the helper, streams audio in real time and ends everything in order.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/HostObserver.h"
#include "cli/LineSplitter.h"
#include "core/AudioSource.h"
#include "platform/audio/SoundSource.h"
#include "platform/posix/PipedProcess.h"

namespace palaver::cli {

// Limits how long a session waits, in ms of wall clock.
struct HostLimits {
  double status = 30000;    // for the first status: the helper may have to query the system
  double ready = 60000;     // for the session: the model may have to be loaded
  double reason = 3000;     // for the status that explains why a session is not available
  double settle = 1500;     // minimum silence after the last audio; endpointing takes 900
  double firstText = 5000;  // silence while a source that spoke has no text yet
  double finals = 15000;    // silence until the finals of both sources have arrived
  double stopped = 15000;   // for the end of the session, and again for the end of the helper
  double stall = 15000;     // while the helper does not read its input
};

// Returns how many runnable threads wait for each processor: the load average of the last minute, divided by
// the number of processors. 0 where the system does not report it. Any thread.
double loadPerProcessor();

struct HostConfiguration {
  std::vector<std::string> helper;  // the program's path and optional arguments
  std::string sessionId = "session-1";
  std::string locale = "en-US";
  std::vector<std::string> vocabulary;
  double speed = 1;  // factor of real time, above 0. Other than 1, silence is measured with the wrong clock
  HostLimits limits;
  // A machine that is busy with other work gets more time for the last words: limits.finals counts times this
  // load, at most six times.
  std::function<double()> load = loadPerProcessor;
};

// Runs one session with one helper. One loop serves both streams and never blocks on either, because writing
// to a child without reading from it can deadlock.
//
// A chunk is due when its last sample has been captured. The schedule is absolute, so delays do not add up,
// and "capturedAt" follows the audio. The stream waits for a helper that reads slowly.
//
// A live source (SoundSource::liveSince) is scheduled from its first audio, so that what arrived before the
// session was ready is sent immediately. A source that has no audio for a chunk yet delays the chunk.
class HostSession {
 public:
  // Without `self` only the remote source is streamed. The observer must outlive the session.
  HostSession(HostConfiguration configuration, std::unique_ptr<SoundSource> remote,
              std::unique_ptr<SoundSource> self, HostObserver& observer);

  // Runs the session to its end. Returns true if the session was ready, all audio was streamed, every final
  // arrived, no error event occurred and the helper ended with status 0. Blocks; call once. Throws
  // std::system_error when the helper cannot be started.
  bool run();

  // Ends the session early and in order: stops the audio, closes the helper's input and reads the last
  // finals. run() then returns false. Safe on any thread and in a signal handler.
  void interrupt() noexcept;

  // Ends the audio: what has arrived is still sent, and the session goes on as after the end of a file. Ends
  // the session like interrupt() while it is not streaming yet. Safe like interrupt().
  void stopAudio() noexcept;

 private:
  using SteadyClock = std::chrono::steady_clock;

  enum class Phase {
    awaitingStatus,
    awaitingReady,
    awaitingReason,  // the session is not available; a status may follow with the reason
    awaitingAudio,   // of a source that has given none yet
    streaming,
    draining,  // silence until the finals have arrived
    stopping,  // "session.stop" has been sent
    closing,   // the helper's input is closed
    done,
  };

  struct Stream {
    std::unique_ptr<SoundSource> sound;  // null when not streamed
    std::int64_t sequence = 0;
    bool ended = false;
    bool spoke = false;         // audio above the loudness threshold was sent
    bool ready = false;         // its own "session.ready" has arrived
    bool gotText = false;       // a partial or a final has arrived
    std::string openUtterance;  // has partials but no final yet; empty for none
  };

  void wake(char request) noexcept;
  void waitForSomething();
  void receiveAudio(std::size_t source);
  void handleRequests();
  void endAudio();
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
  void reportMissingFinal();
  double finalsLimit() const;
  bool finalsAreThere() const;
  bool hasAudioEnded() const;
  bool isChunkThere() const;
  void closeHelper();
  void handleExit();
  void enter(Phase phase);
  void startStreaming();
  void startDraining();
  void problem(std::string_view message);
  void giveUp(std::string_view message);  // reports a problem that ends the session

  double inPhase() const;               // ms since the phase began
  SteadyClock::time_point due() const;  // of the next chunk
  bool isStreaming() const { return phase_ == Phase::streaming || phase_ == Phase::draining; }
  Stream& stream(AudioSource source) { return streams_[static_cast<std::size_t>(source)]; }

  HostConfiguration configuration_;
  HostObserver& observer_;
  std::array<Stream, allAudioSources.size()> streams_;  // by AudioSource
  Pipe interruption_;                                   // a byte wakes the loop and says why
  std::unique_ptr<PipedProcess> helper_;
  LineSplitter outputLines_;
  LineSplitter diagnosticLines_;

  Phase phase_ = Phase::awaitingStatus;
  SteadyClock::time_point phaseStart_;
  SteadyClock::time_point streamStart_;
  SteadyClock::time_point lastProgress_;    // when the helper last read, or the queue had room
  std::size_t lastQueued_ = 0;              // bytes, at the last check
  SteadyClock::time_point lastTranscript_;  // when the last transcript event arrived
  double startedAt_ = 0;                    // wall clock at streamStart_, ms since the Unix epoch
  double total_ = 0;                        // ms of audio to stream; 0 while unknown
  bool live_ = false;                       // a source is captured as it is read
  std::int64_t chunks_ = 0;                 // of each source, sent so far
  std::string statusMessage_;               // from the latest "helper.status"
  bool ok_ = true;
  int signalsSent_ = 0;  // to a helper that does not end
};

}  // namespace palaver::cli
