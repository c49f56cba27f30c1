#import "platform/macos/FoundationValues.h"

namespace palaver {

NSString* toNSString(std::string_view text) {
  NSString* const string = [[NSString alloc] initWithBytes:text.data()
                                                    length:text.size()
                                                  encoding:NSUTF8StringEncoding];
  if (string) return string;
  return [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSISOLatin1StringEncoding];
}

std::string toString(NSString* text) {
  if (!text) return {};
  const char* const bytes = text.UTF8String;
  if (!bytes) return "\xEF\xBF\xBD";  // U+FFFD
  return {bytes, [text lengthOfBytesUsingEncoding:NSUTF8StringEncoding]};
}

PlatformError toPlatformError(NSError* error) {
  return {toString(error.domain), error.code, toString(error.localizedDescription)};
}

PlatformError toPlatformError(NSException* exception) {
  constexpr long code = -1;  // exceptions have none
  return {toString(exception.name), code, toString(exception.reason)};
}

}  // namespace palaver
