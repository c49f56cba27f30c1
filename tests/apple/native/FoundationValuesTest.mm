// Tests conversions of texts and errors between Foundation and the contracts. Runs over the real Foundation
// on a Mac, and over its stand-in on Linux.
#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

#include <string>

#include "platform/macos/AutoreleasePool.h"
#import "platform/macos/FoundationValues.h"

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

}  // namespace
}  // namespace palaver
