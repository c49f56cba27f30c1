// Converts texts and errors between Foundation and the contracts. For Objective-C++ with ARC. Any thread,
// inside an autorelease pool.
#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

#include "platform/PlatformError.h"

namespace palaver {

// Never returns nil. Decodes bytes that are not UTF-8 as Latin-1, which accepts every byte sequence.
NSString* toNSString(std::string_view text);

// Returns UTF-8. A text that has no UTF-8 form (half a surrogate pair) becomes one replacement character. Nil
// becomes an empty text.
std::string toString(NSString* text);

// Keeps the domain, the code and the localized description.
PlatformError toPlatformError(NSError* error);

// Uses the exception's name as the domain and its reason as the description.
PlatformError toPlatformError(NSException* exception);

}  // namespace palaver
