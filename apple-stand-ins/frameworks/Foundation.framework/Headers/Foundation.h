// Declares the parts of Foundation that this project uses, so that the macOS sources compile without its SDK.
// Written for this project. Names, types and nullability follow Apple's documentation
// (developer.apple.com/documentation/foundation). A Mac uses the SDK's header instead.
#pragma once

#import <objc/NSObject.h>
#import <os/availability.h>
#include <stddef.h>
#include <stdint.h>

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#ifndef NS_ENUM
#define NS_ENUM(type, name)                                        \
  enum __attribute__((enum_extensibility(open))) name : type name; \
  enum name : type
#endif
#define NS_DESIGNATED_INITIALIZER __attribute__((objc_designated_initializer))

NS_ASSUME_NONNULL_BEGIN

typedef double NSTimeInterval;  // seconds

typedef struct {
  unsigned long state;
  id __unsafe_unretained _Nullable *_Nullable itemsPtr;
  unsigned long *_Nullable mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;

@class NSDictionary<__covariant KeyType, __covariant ObjectType>;

@protocol NSCopying
- (id)copyWithZone:(nullable struct _NSZone *)zone;
@end

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState *)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)length;
@end

@interface NSObject (NSCopying)
- (id)copy;
@end

typedef NSUInteger NSStringEncoding;
enum : NSUInteger { NSUTF8StringEncoding = 4, NSISOLatin1StringEncoding = 5 };

@interface NSString : NSObject <NSCopying>
@property(readonly) NSUInteger length;  // UTF-16 units
@property(nullable, readonly) const char *UTF8String;
- (nullable instancetype)initWithBytes:(const void *)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
+ (nullable instancetype)stringWithUTF8String:(const char *)text;
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding;
- (BOOL)isEqualToString:(NSString *)other;
@end

@interface NSArray<__covariant ObjectType> : NSObject <NSCopying, NSFastEnumeration>
@property(readonly) NSUInteger count;
- (ObjectType)objectAtIndex:(NSUInteger)index;
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)index;
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nullable])objects count:(NSUInteger)count;
@end

@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
+ (instancetype)arrayWithCapacity:(NSUInteger)capacity;
- (void)addObject:(ObjectType)object;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSCopying>
@property(readonly) NSUInteger count;
- (nullable ObjectType)objectForKeyedSubscript:(KeyType)key;
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull[_Nullable])objects
                              forKeys:(const KeyType<NSCopying> _Nonnull[_Nullable])keys
                                count:(NSUInteger)count;
@end

typedef NSString *NSErrorDomain;
typedef NSString *NSErrorUserInfoKey;
extern NSErrorUserInfoKey const NSLocalizedDescriptionKey;

@interface NSError : NSObject <NSCopying>
@property(readonly, copy) NSErrorDomain domain;
@property(readonly) NSInteger code;
@property(readonly, copy) NSString *localizedDescription;
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id> *)userInfo;
@end

typedef NSString *NSExceptionName;
extern NSExceptionName const NSInternalInconsistencyException;
extern NSExceptionName const NSInvalidArgumentException;

__attribute__((objc_exception))
@interface NSException : NSObject<NSCopying>
@property(readonly, copy) NSExceptionName name;
@property(nullable, readonly, copy) NSString *reason;
+ (NSException *)exceptionWithName:(NSExceptionName)name
                            reason:(nullable NSString *)reason
                          userInfo:(nullable NSDictionary *)userInfo;
- (void)raise __attribute__((noreturn));
@end

@interface NSLocale : NSObject <NSCopying>
@property(readonly, copy) NSString *localeIdentifier;
- (instancetype)initWithLocaleIdentifier:(NSString *)identifier NS_DESIGNATED_INITIALIZER;
@end

@interface NSURL : NSObject <NSCopying>
// Returns the path's bytes, for system calls.
@property(readonly) const char *fileSystemRepresentation;
+ (NSURL *)fileURLWithFileSystemRepresentation:(const char *)path
                                   isDirectory:(BOOL)isDirectory
                                 relativeToURL:(nullable NSURL *)base;
@end

typedef struct {
  NSInteger majorVersion;
  NSInteger minorVersion;
  NSInteger patchVersion;
} NSOperatingSystemVersion;

@interface NSProcessInfo : NSObject
@property(class, readonly, strong) NSProcessInfo *processInfo;
@property(readonly) NSOperatingSystemVersion operatingSystemVersion;
@end

NS_ASSUME_NONNULL_END
