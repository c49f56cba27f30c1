// Implements the class of string literals such as @"text". Compiled without ARC: literals are not
// reference-counted.
#import <Foundation/Foundation.h>

#include <string>

#include "apple-stand-ins/objc/Runtime.h"

namespace {

// Layout as emitted by the compiler.
struct ConstantString {
  static constexpr int isUTF16 = 0x10;  // a bit of flags

  void *isa;
  int flags;
  const void *characters;
  long length;
};

std::string toUTF8(const char16_t *units, long length) {
  std::string text;
  const auto add = [&text](unsigned bits) { text += static_cast<char>(bits); };
  for (long i = 0; i < length; ++i) {
    unsigned code = units[i];
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < length)
      code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00u);
    if (code < 0x80) {
      add(code);
      continue;
    }
    if (code < 0x800) {
      add(0xC0 | code >> 6);
    } else {
      if (code < 0x10000) {
        add(0xE0 | code >> 12);
      } else {
        add(0xF0 | code >> 18);
        add(0x80 | (code >> 12 & 0x3F));
      }
      add(0x80 | (code >> 6 & 0x3F));
    }
    add(0x80 | (code & 0x3F));
  }
  return text;
}

}  // namespace

@interface PalaverConstantString : NSString
@end

@implementation PalaverConstantString
- (instancetype)retain {
  return self;
}
- (oneway void)release {
}
- (id)copyWithZone:(struct _NSZone *)zone {
  (void)zone;
  return self;
}
- (const char *)UTF8String {
  const auto *const constant = reinterpret_cast<const ConstantString *>(self);
  if (!(constant->flags & ConstantString::isUTF16)) return static_cast<const char *>(constant->characters);
  const auto text = toUTF8(static_cast<const char16_t *>(constant->characters), constant->length);
  return [NSString stringWithUTF8String:text.c_str()].UTF8String;
}
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding {
  return encoding == NSUTF8StringEncoding ? std::char_traits<char>::length(self.UTF8String) : 0;
}
@end

extern "C" void *__CFConstantStringClassReference[32];
void *__CFConstantStringClassReference[32];

// Runs after the classes have been loaded.
__attribute__((constructor(103))) static void makeConstantStringsObjects() {
  palaver::objc::impersonate(__CFConstantStringClassReference,
                             reinterpret_cast<palaver::objc::Class *>([PalaverConstantString class]));
}
