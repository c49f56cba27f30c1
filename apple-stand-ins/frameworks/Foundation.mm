// Implements Foundation's value types on the small Objective-C runtime, as documented by Apple.
#import <Foundation/Foundation.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#import "apple-stand-ins/frameworks/StandIns.h"
#include "core/UTF8.h"

NSErrorUserInfoKey const NSLocalizedDescriptionKey = @"NSLocalizedDescription";
NSExceptionName const NSInternalInconsistencyException = @"NSInternalInconsistencyException";
NSExceptionName const NSInvalidArgumentException = @"NSInvalidArgumentException";

@implementation NSString {
  std::string text_;  // UTF-8
}
- (instancetype)initWithBytes:(const void *)bytes
                       length:(NSUInteger)length
                     encoding:(NSStringEncoding)encoding {
  const std::string given(static_cast<const char *>(bytes), length);
  if (encoding == NSUTF8StringEncoding && !palaver::isValidUTF8(given)) return nil;
  if (!(self = [super init])) return nil;
  if (encoding == NSUTF8StringEncoding) {
    text_ = given;
    return self;
  }
  for (const char character : given) {
    const auto code = static_cast<unsigned char>(character);
    if (code >= 0x80) text_ += static_cast<char>(0xC0 | code >> 6);
    text_ += static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code);
  }
  return self;
}
+ (instancetype)stringWithUTF8String:(const char *)text {
  return [[self alloc] initWithBytes:text
                              length:std::char_traits<char>::length(text)
                            encoding:NSUTF8StringEncoding];
}
- (const char *)UTF8String {
  return text_.c_str();
}
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding {
  return encoding == NSUTF8StringEncoding ? text_.size() : 0;
}
- (NSUInteger)length {
  NSUInteger units = 0;
  for (const char *next = self.UTF8String; *next; ++next) {
    const auto byte = static_cast<unsigned char>(*next);
    units += (byte & 0xC0) != 0x80;  // first byte of a character
    units += byte >= 0xF0;           // beyond 16 bits: a surrogate pair
  }
  return units;
}
- (BOOL)isEqualToString:(NSString *)other {
  return std::string_view(self.UTF8String) == other.UTF8String;
}
- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[NSString class]] && [self isEqualToString:other];
}
- (NSUInteger)hash {
  return std::hash<std::string_view>()(self.UTF8String);
}
@end

@implementation NSArray {
 @protected
  std::vector<id> objects_;
}
+ (instancetype)arrayWithObjects:(const id _Nonnull[])objects count:(NSUInteger)count {
  NSArray *const array = [[self alloc] init];
  array->objects_.assign(objects, objects + count);
  return array;
}
- (NSUInteger)count {
  return objects_.size();
}
- (id)objectAtIndex:(NSUInteger)index {
  return objects_.at(index);
}
- (id)objectAtIndexedSubscript:(NSUInteger)index {
  return objects_.at(index);
}
- (id)copyWithZone:(struct _NSZone *)zone {
  (void)zone;
  NSArray *const copied = [[NSArray alloc] init];
  copied->objects_ = objects_;
  return copied;
}
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState *)state
                                  objects:(id __unsafe_unretained[])buffer
                                    count:(NSUInteger)length {
  state->mutationsPtr = &state->extra[0];
  state->itemsPtr = buffer;
  NSUInteger given = 0;
  while (given < length && state->state < objects_.size()) buffer[given++] = objects_[state->state++];
  return given;
}
@end

@implementation NSMutableArray
+ (instancetype)arrayWithCapacity:(NSUInteger)capacity {
  NSMutableArray *const array = [[self alloc] init];
  array->objects_.reserve(capacity);
  return array;
}
- (void)addObject:(id)object {
  if (!object)
    [[NSException exceptionWithName:NSInvalidArgumentException reason:@"object cannot be nil"
                           userInfo:nil] raise];
  objects_.push_back(object);
}
@end

@implementation NSDictionary {
  std::vector<std::pair<id, id>> entries_;
}
+ (instancetype)dictionaryWithObjects:(const id _Nonnull[])objects
                              forKeys:(const id<NSCopying> _Nonnull[])keys
                                count:(NSUInteger)count {
  NSDictionary *const dictionary = [[self alloc] init];
  for (NSUInteger i = 0; i < count; ++i) dictionary->entries_.emplace_back(keys[i], objects[i]);
  return dictionary;
}
- (NSUInteger)count {
  return entries_.size();
}
- (id)objectForKeyedSubscript:(id)key {
  for (const auto &entry : entries_)
    if ([entry.first isEqual:key]) return entry.second;
  return nil;
}
@end

@implementation NSError {
  NSDictionary *userInfo_;
}
@synthesize domain = domain_, code = code_;
+ (instancetype)errorWithDomain:(NSErrorDomain)domain code:(NSInteger)code userInfo:(NSDictionary *)userInfo {
  NSError *const error = [[self alloc] init];
  error->domain_ = [domain copy];
  error->code_ = code;
  error->userInfo_ = userInfo;
  return error;
}
- (NSString *)localizedDescription {
  return userInfo_[NSLocalizedDescriptionKey] ?: @"The operation couldn’t be completed.";
}
@end

@implementation NSException
@synthesize name = name_, reason = reason_;
+ (NSException *)exceptionWithName:(NSExceptionName)name
                            reason:(NSString *)reason
                          userInfo:(NSDictionary *)userInfo {
  (void)userInfo;
  NSException *const exception = [[self alloc] init];
  exception->name_ = [name copy];
  exception->reason_ = [reason copy];
  return exception;
}
- (void)raise {
  @throw self;
}
@end

@implementation NSLocale
@synthesize localeIdentifier = localeIdentifier_;
- (instancetype)initWithLocaleIdentifier:(NSString *)identifier {
  if ((self = [super init])) localeIdentifier_ = [identifier copy];
  return self;
}
@end

@implementation NSURL {
  std::string path_;
}
+ (NSURL *)fileURLWithFileSystemRepresentation:(const char *)path
                                   isDirectory:(BOOL)isDirectory
                                 relativeToURL:(NSURL *)base {
  (void)isDirectory;
  (void)base;
  NSURL *const url = [[self alloc] init];
  url->path_ = path;
  return url;
}
- (const char *)fileSystemRepresentation {
  return path_.c_str();
}
@end

@implementation NSProcessInfo
+ (NSProcessInfo *)processInfo {
  return [[NSProcessInfo alloc] init];
}
- (NSOperatingSystemVersion)operatingSystemVersion {
  const auto &version = palaver::FrameworkBehaviour::current().systemVersion;
  return {version.major, version.minor, version.patch};
}
@end
