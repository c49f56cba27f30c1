// Texts and errors, between Foundation and the contracts. For Objective-C++ with ARC. Any thread; with a pool
// in place.
#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

#include "platform/PlatformError.h"

namespace palaver {

// Never nil. Bytes that are not UTF-8 are taken for Latin-1, which every sequence of bytes is.
NSString* toNSString(std::string_view text);

// In UTF-8. A text that has no such form (half a surrogate pair) reads as one replacement character; nil is
// empty.
std::string toString(NSString* text);

// With the domain, the code and the localized description.
PlatformError toPlatformError(NSError* error);

// With the exception's name as the domain, and its reason.
PlatformError toPlatformError(NSException* exception);

}  // namespace palaver
