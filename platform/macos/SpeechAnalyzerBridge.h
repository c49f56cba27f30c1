// Declares C functions that give this platform's C++ access to SpeechAnalyzer and its
// companions, which exist in Swift only. Each function translates one call of the framework.
// Implemented in SpeechAnalyzerBridge.swift.
//
// Requires macOS 26 or later, except speechBridgeIsTranscriberAvailable(), which checks the version itself.
//
// Handles are objects of the framework. Functions named "make" and "read", and the callback of
// speechBridgeAssetInstallationRequest(), return an owned handle. Its owner releases it once with
// speechBridgeRelease(). A handle passed to a function is only borrowed.
//
// Threads: every function may be called on any thread and returns without waiting. Callbacks run on a Swift
// thread, possibly before the function returns, and must not block. An operation calls its callback exactly
// once, unless the framework never completes it. `context` is passed through unchanged, and the callback
// takes ownership of the object it points to. Other pointers and strings are valid during the call only.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef struct SpeechBridgeTranscriber SpeechBridgeTranscriber;    // SpeechTranscriber
typedef struct SpeechBridgeResults SpeechBridgeResults;            // iteration over its results
typedef struct SpeechBridgeInput SpeechBridgeInput;                // AsyncStream<AnalyzerInput>
typedef struct SpeechBridgeAnalyzer SpeechBridgeAnalyzer;          // SpeechAnalyzer
typedef struct SpeechBridgeInstallation SpeechBridgeInstallation;  // AssetInstallationRequest

// UTF-8, not terminated. May contain NUL.
typedef struct {
  const char* _Nullable bytes;  // null only when empty
  size_t length;
} SpeechBridgeString;

// The values of an NSError.
typedef struct {
  SpeechBridgeString domain;
  int64_t code;
  SpeechBridgeString localizedDescription;
} SpeechBridgeError;

typedef struct {
  uint32_t commonFormat;  // as AVAudioCommonFormat
  double sampleRate;      // Hz
  uint32_t channelCount;
  bool interleaved;
} SpeechBridgeAudioFormat;

typedef struct {
  SpeechBridgeAudioFormat format;  // 16-bit integers or 32-bit floats
  uint32_t frameLength;
  const void* samples;     // in the machine's byte order
  uint32_t channelStride;  // samples from one channel's first to the next one's; not used when interleaved
} SpeechBridgeAudioBuffer;

typedef struct {
  SpeechBridgeString text;  // plain characters
  double rangeStart;        // seconds from the first sample; may be NaN or infinite
  double rangeEnd;
  bool isFinal;
} SpeechBridgeResult;

typedef enum {
  SpeechBridgeAssetStatusUnsupported = 0,
  SpeechBridgeAssetStatusSupported = 1,
  SpeechBridgeAssetStatusDownloading = 2,
  SpeechBridgeAssetStatusInstalled = 3
} SpeechBridgeAssetStatus;

// How the results ended: at the end of the sequence, cancelled, or failed.
typedef enum {
  SpeechBridgeResultsEnded = 0,
  SpeechBridgeResultsCancelled = 1,
  SpeechBridgeResultsFailed = 2
} SpeechBridgeResultsOutcome;

typedef void (*SpeechBridgeCompletion)(void* context);
typedef void (*SpeechBridgeFallibleCompletion)(void* context, const SpeechBridgeError* _Nullable error);
typedef void (*SpeechBridgeLocaleCompletion)(void* context, const SpeechBridgeString* _Nullable identifier);
// The strings are valid during the call only.
typedef void (*SpeechBridgeLocalesCompletion)(void* context, const SpeechBridgeString* _Nullable identifiers,
                                              size_t count);
typedef void (*SpeechBridgeFormatCompletion)(void* context, const SpeechBridgeAudioFormat* _Nullable format);
typedef void (*SpeechBridgeStatusCompletion)(void* context, SpeechBridgeAssetStatus status);
// If both are null, there is nothing to install.
typedef void (*SpeechBridgeInstallationCompletion)(void* context,
                                                   SpeechBridgeInstallation* _Nullable installation,
                                                   const SpeechBridgeError* _Nullable error);
typedef void (*SpeechBridgeResultCallback)(void* context, const SpeechBridgeResult* result);
// `error` is set with SpeechBridgeResultsFailed only.
typedef void (*SpeechBridgeResultsEndCallback)(void* context, SpeechBridgeResultsOutcome outcome,
                                               const SpeechBridgeError* _Nullable error);

// Releases a handle of any kind.
void speechBridgeRelease(const void* handle);

// SpeechTranscriber.isAvailable. Returns false before macOS 26.
bool speechBridgeIsTranscriberAvailable(void);

// SpeechTranscriber.supportedLocale(equivalentTo:), with the identifiers of Locale.
void speechBridgeSupportedLocale(SpeechBridgeString equivalentTo, SpeechBridgeLocaleCompletion completion,
                                 void* context);

// Uses the preset progressiveTranscription.
SpeechBridgeTranscriber* speechBridgeMakeTranscriber(SpeechBridgeString locale);

// Iterates over SpeechTranscriber.results. Calls `onResult` for each, one after the other, then `onEnd` once,
// as the last call. The iterator exists when the function returns. At most once per transcriber.
SpeechBridgeResults* speechBridgeReadResults(SpeechBridgeTranscriber* transcriber,
                                             SpeechBridgeResultCallback onResult,
                                             SpeechBridgeResultsEndCallback onEnd, void* context);

// Cancels the iterating task.
void speechBridgeCancelResults(SpeechBridgeResults* results);

// SpeechAnalyzer.bestAvailableAudioFormat(compatibleWith:).
void speechBridgeBestAvailableAudioFormat(SpeechBridgeTranscriber* transcriber,
                                          SpeechBridgeFormatCompletion completion, void* context);

// Creates an unbounded stream for one analyzer.
SpeechBridgeInput* speechBridgeMakeInput(void);

// Appends a copy of the audio. Dropped after speechBridgeFinishInput(). The framework ends the process when
// the sample type is not the one the analyzer requires. Returns false when the system cannot create a buffer.
bool speechBridgeYield(SpeechBridgeInput* input, const SpeechBridgeAudioBuffer* buffer);
void speechBridgeFinishInput(SpeechBridgeInput* input);

// Creates an analyzer of one module, with an AnalysisContext of `count` contextual strings.
SpeechBridgeAnalyzer* speechBridgeMakeAnalyzer(SpeechBridgeTranscriber* transcriber, SpeechBridgeInput* input,
                                               const SpeechBridgeString* _Nullable contextualStrings,
                                               size_t count);

// prepareToAnalyze(in:), finalizeAndFinishThroughEndOfInput(), cancelAndFinishNow().
void speechBridgePrepareToAnalyze(SpeechBridgeAnalyzer* analyzer, const SpeechBridgeAudioFormat* format,
                                  SpeechBridgeFallibleCompletion completion, void* context);
void speechBridgeFinalizeAndFinishThroughEndOfInput(SpeechBridgeAnalyzer* analyzer,
                                                    SpeechBridgeFallibleCompletion completion, void* context);
void speechBridgeCancelAndFinishNow(SpeechBridgeAnalyzer* analyzer, SpeechBridgeCompletion completion,
                                    void* context);

// AssetInventory.reserve(locale:). Completes without an error also when the locale is reserved already.
void speechBridgeReserveLocale(SpeechBridgeString locale, SpeechBridgeFallibleCompletion completion,
                               void* context);
// AssetInventory.reservedLocales, the reservations of this program.
void speechBridgeReservedLocales(SpeechBridgeLocalesCompletion completion, void* context);
// AssetInventory.release(reservedLocale:).
void speechBridgeReleaseLocale(SpeechBridgeString reservedLocale, SpeechBridgeCompletion completion,
                               void* context);

// AssetInventory.status(forModules:) and assetInstallationRequest(supporting:) of one module.
void speechBridgeAssetStatus(SpeechBridgeTranscriber* transcriber, SpeechBridgeStatusCompletion completion,
                             void* context);
void speechBridgeAssetInstallationRequest(SpeechBridgeTranscriber* transcriber,
                                          SpeechBridgeInstallationCompletion completion, void* context);
void speechBridgeDownloadAndInstall(SpeechBridgeInstallation* installation,
                                    SpeechBridgeFallibleCompletion completion, void* context);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
