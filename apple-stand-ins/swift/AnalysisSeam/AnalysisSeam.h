// Where the stand-in for the Speech module ends: everything that it is asked, it asks of these C functions,
// which AnalysisBehaviour.cpp answers.
//
// Any thread. An answer is given exactly once, on any thread, perhaps from inside the call; what it points to
// is valid during the call only. Handles are numbers: nothing that the two sides share is left to the Swift
// runtime to publish to another thread.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  uint32_t commonFormat;  // as AVAudioCommonFormat
  double sampleRate;      // Hz
  uint32_t channelCount;
  bool interleaved;
} AnalysisSeamFormat;

// One answer of any kind; what does not belong to it is zero.
typedef struct {
  const char* text;  // UTF-8; null for none
  size_t textLength;
  int64_t number;  // a status, or a handle (0: none)
  const AnalysisSeamFormat* format;
  // An error. The domain "CancellationError" stands for the error of that name.
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

// Every result, one after the other; then null, with the error if they failed.
typedef void (*AnalysisSeamResultHandler)(void* context, const AnalysisSeamResult* result,
                                          const AnalysisSeamAnswer* end);

bool analysisSeamIsAvailable(void);
void analysisSeamSupportedLocale(const char* equivalentTo, size_t length, AnalysisSeamCompletion completion,
                                 void* context);
int64_t analysisSeamMakeTranscriber(const char* locale, size_t length);
void analysisSeamBestFormat(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
void analysisSeamStatus(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
void analysisSeamInstallationRequest(int64_t transcriber, AnalysisSeamCompletion completion, void* context);
void analysisSeamDownload(int64_t installation, AnalysisSeamCompletion completion, void* context);

// Whether results that come before somebody iterates over them are lost.
bool analysisSeamLosesUnreadResults(void);

int64_t analysisSeamMakeAnalyzer(int64_t transcriber, const char* const* phrases, const size_t* lengths,
                                 size_t count);
// Results of the transcriber's analyzer come to the handler from now on.
void analysisSeamPumpResults(int64_t transcriber, AnalysisSeamResultHandler handler, void* context);
void analysisSeamPrepare(int64_t analyzer, const AnalysisSeamFormat* format,
                         AnalysisSeamCompletion completion, void* context);
// `channels`: one pointer for each channel, or one for all when interleaved.
void analysisSeamYield(int64_t analyzer, const AnalysisSeamFormat* format, const void* const* channels,
                       uint32_t frames);
void analysisSeamFinishInput(int64_t analyzer);
void analysisSeamFinish(int64_t analyzer, AnalysisSeamCompletion completion, void* context);
void analysisSeamCancel(int64_t analyzer, AnalysisSeamCompletion completion, void* context);

// Memory for samples, zeroed. That they are let go on another thread than they were read on is only known to
// the Swift runtime: a lock here shows it to the thread sanitizer.
void* analysisSeamAllocateSamples(size_t bytes);
void analysisSeamFreeSamples(void* samples);

// The framework object is gone.
void analysisSeamForget(int64_t handle);

#ifdef __cplusplus
}
#endif
