// Defines the C functions that the Speech module stand-in calls. AnalysisBehaviour.cpp implements them.
//
// Any thread. Each answer is given exactly once, on any thread, possibly inside the call. Its pointers are
// valid only during the call. Handles are numbers, so that the Swift runtime never has to publish shared
// objects to another thread.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  uint32_t commonFormat;  // value of AVAudioCommonFormat
  double sampleRate;      // Hz
  uint32_t channelCount;
  bool interleaved;
} AnalysisSeamFormat;

// Holds one answer of any kind. Unused members are zero.
typedef struct {
  const char* text;  // UTF-8; null for none
  size_t textLength;
  int64_t number;  // a status or a handle; 0: no handle
  const AnalysisSeamFormat* format;
  // Error of the answer. The domain "CancellationError" stands for Swift's CancellationError.
  const char* errorDomain;
  int64_t errorCode;
  const char* errorText;
} AnalysisSeamAnswer;

typedef void (*AnalysisSeamCompletion)(void* context, const AnalysisSeamAnswer* answer);

typedef struct {
  const char* text;
  size_t textLength;
  double rangeStart;  // s
  double rangeEnd;
  bool isFinal;
} AnalysisSeamResult;

// Receives every result in order, then a null result with the error, if any.
typedef void (*AnalysisSeamResultHandler)(void* context, const AnalysisSeamResult* result,
                                          const AnalysisSeamAnswer* end);

bool analysisSeamIsAvailable(void);
void analysisSeamSupportedLocale(const char* equivalentTo, size_t length, AnalysisSeamCompletion completion,
                                 void* context);
int64_t analysisSeamMakeTranscriber(const char* locale, size_t length);
void analysisSeamBestFormat(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
// Answers with 1 for a new reservation, 0 for an existing one.
void analysisSeamReserve(const char* locale, size_t length, AnalysisSeamCompletion completion, void* context);
// Answers with the reserved locales, one a line.
void analysisSeamReservedLocales(AnalysisSeamCompletion completion, void* context);
// Answers with 1 when the locale was reserved.
void analysisSeamRelease(const char* locale, size_t length, AnalysisSeamCompletion completion, void* context);
void analysisSeamStatus(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
void analysisSeamInstallationRequest(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
void analysisSeamDownload(int64_t installation, AnalysisSeamCompletion completion, void* context);

// Returns whether results that arrive before the first iteration are lost.
bool analysisSeamLosesUnreadResults(void);

int64_t analysisSeamMakeAnalyzer(int64_t transcriber, const char* const* phrases, const size_t* lengths,
                                 size_t count);
// Passes all further results of the transcriber's analyzer to the handler.
void analysisSeamPumpResults(int64_t transcriber, AnalysisSeamResultHandler handler, void* context);
void analysisSeamPrepare(int64_t analyzer, const AnalysisSeamFormat* format,
                         AnalysisSeamCompletion completion, void* context);
// `channels` has one pointer per channel, or a single pointer if interleaved.
void analysisSeamYield(int64_t analyzer, const AnalysisSeamFormat* format, const void* const* channels,
                       uint32_t frames);
void analysisSeamFinishInput(int64_t analyzer);
void analysisSeamFinish(int64_t analyzer, AnalysisSeamCompletion completion, void* context);
void analysisSeamCancel(int64_t analyzer, AnalysisSeamCompletion completion, void* context);

// Allocates zeroed memory for samples. Only the Swift runtime knows that the memory is freed on another
// thread than it was read on. A lock here makes that order visible to the thread sanitizer.
void* analysisSeamAllocateSamples(size_t bytes);
void analysisSeamFreeSamples(void* samples);

// Reports that the framework object was destroyed.
void analysisSeamForget(int64_t handle);

#ifdef __cplusplus
}
#endif
