// Tests conversions of texts, errors and the system version between Foundation and the contracts.
#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/macos/AutoreleasePool.h"
#import "platform/macos/FoundationValues.h"
#include "platform/macos/MacProcess.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"

// A text without a UTF-8 representation.
@interface HalfSurrogatePair : NSString
@end

@implementation HalfSurrogatePair
- (const char*)UTF8String {
  return nullptr;
}
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding {
  (void)encoding;
  return 0;
}
@end

namespace palaver {
namespace {

TEST(FoundationValues, TextsRoundTrip) {
  const AutoreleasePool pool;
  for (const std::string text : {"", "plain", "未来 für 😀", "a\"b\\c\n"})
    EXPECT_EQ(toString(toNSString(text)), text);
  const std::string withZero("a\0b", 3);
  EXPECT_EQ(toString(toNSString(withZero)), withZero);
  EXPECT_EQ(toString(@"未来 für 😀"), "未来 für 😀");
  EXPECT_EQ(@"未来 für 😀".length, 9U);
}

TEST(FoundationValues, InvalidUTF8IsReadAsLatin1) {
  const AutoreleasePool pool;
  EXPECT_EQ(toString(toNSString("Z\xFCrich")), "Zürich");
  EXPECT_EQ(toString(toNSString("\xED\xA0\x80")), "\xC3\xAD\xC2\xA0\xC2\x80") << "a surrogate";
}

TEST(FoundationValues, NilTextIsEmptyAndUnencodableTextIsMarked) {
  const AutoreleasePool pool;
  EXPECT_EQ(toString(nil), "");
  EXPECT_EQ(toString([[HalfSurrogatePair alloc] init]), "\xEF\xBF\xBD");
}

TEST(FoundationValues, ErrorsKeepDomainCodeAndText) {
  const AutoreleasePool pool;
  const auto error = toPlatformError([NSError errorWithDomain:@"kLSRErrorDomain"
                                                         code:-201
                                                     userInfo:@{NSLocalizedDescriptionKey : @"音声入力"}]);
  EXPECT_EQ(error.domain(), "kLSRErrorDomain");
  EXPECT_EQ(error.code(), -201);
  EXPECT_EQ(error.localizedDescription(), "音声入力");
}

TEST(FoundationValues, ExceptionsKeepNameAndReason) {
  const AutoreleasePool pool;
  const auto error = toPlatformError([NSException exceptionWithName:@"Name" reason:@"Reason" userInfo:nil]);
  EXPECT_EQ(error.domain(), "Name");
  EXPECT_EQ(error.localizedDescription(), "Reason");
  EXPECT_EQ(
      toPlatformError([NSException exceptionWithName:@"Name" reason:nil userInfo:nil]).localizedDescription(),
      "");
}

TEST(MacProcess, SystemVersionIsCompared) {
  Scheduler scheduler;
  SimulatedSpeechRecognition recognition(scheduler, {});
  SpeexAudioConverters converters;
  SndfileAudioFiles files;
  FrameworkBehaviour behaviour(recognition, converters, files, {});
  char program[] = "program", option[] = "--health";
  char* arguments[] = {program, option, nullptr};
  struct Case {
    OperatingSystemVersion system, wanted;
    bool isAtLeast;
  };
  const std::vector<Case> cases{
      {{15, 7, 1}, {26, 0, 0}, false},
      {{26, 0, 0}, {26, 0, 0}, true},
      {{26, 5, 1}, {26, 5, 2}, false},
      {{26, 5, 1}, {26, 4, 9}, true},
      {{14, 0, 0}, {14, 0, 0}, true},
      {{27, 0, 0}, {26, 0, 0}, true},
      // The version that macOS 26 reports to a program built with an older SDK.
      {{16, 0, 0}, {26, 0, 0}, true},
      {{16, 5, 0}, {27, 0, 0}, false},
  };
  for (const auto& [system, wanted, isAtLeast] : cases) {
    behaviour.systemVersion = system;
    const MacProcess process(2, arguments);
    EXPECT_EQ(process.isMacOSAtLeast(wanted), isAtLeast) << system.major << "." << system.minor;
    EXPECT_EQ(process.arguments(), (std::vector<std::string>{"program", "--health"}));
  }
}

}  // namespace
}  // namespace palaver
