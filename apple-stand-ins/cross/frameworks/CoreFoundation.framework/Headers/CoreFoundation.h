// Declares the parts of CoreFoundation that this project uses, for the cross build only. Written for this
// project. Types and signatures follow Apple's documentation
// (developer.apple.com/documentation/corefoundation). A Mac uses the SDK's header, and tests on Linux use the
// header of the open-source library.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef signed long CFIndex;
typedef double CFTimeInterval;  // seconds
typedef UInt32 CFStringEncoding;
enum { kCFStringEncodingUTF8 = 0x08000100 };

typedef const void *CFTypeRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __attribute__((objc_bridge(NSString))) __CFString *CFStringRef;
typedef const struct __CFURL *CFURLRef;
typedef struct __CFBundle *CFBundleRef;
typedef struct __CFRunLoop *CFRunLoopRef;
typedef struct __CFRunLoopSource *CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;

typedef SInt32 CFRunLoopRunResult;
enum {
  kCFRunLoopRunFinished = 1,
  kCFRunLoopRunStopped = 2,
  kCFRunLoopRunTimedOut = 3,
  kCFRunLoopRunHandledSource = 4
};

typedef struct {
  CFIndex version;
  void *info;
  const void *(*retain)(const void *info);
  void (*release)(const void *info);
  CFStringRef (*copyDescription)(const void *info);
  Boolean (*equal)(const void *info1, const void *info2);
  unsigned long (*hash)(const void *info);
  void (*schedule)(void *info, CFRunLoopRef loop, CFRunLoopMode mode);
  void (*cancel)(void *info, CFRunLoopRef loop, CFRunLoopMode mode);
  void (*perform)(void *info);
} CFRunLoopSourceContext;

extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFRunLoopMode kCFRunLoopDefaultMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);

CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *text, CFStringEncoding encoding);

CFBundleRef CFBundleGetMainBundle(void);
CFURLRef CFBundleCopyExecutableURL(CFBundleRef bundle);
Boolean CFURLGetFileSystemRepresentation(CFURLRef url, Boolean resolveAgainstBase, UInt8 *buffer,
                                         CFIndex size);

CFRunLoopRef CFRunLoopGetCurrent(void);
CFRunLoopRef CFRunLoopGetMain(void);
void CFRunLoopAddCommonMode(CFRunLoopRef loop, CFRunLoopMode mode);
void CFRunLoopPerformBlock(CFRunLoopRef loop, CFTypeRef mode, void (^block)(void));
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean returnAfterSourceHandled);
void CFRunLoopStop(CFRunLoopRef loop);
void CFRunLoopWakeUp(CFRunLoopRef loop);

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef allocator, CFIndex order,
                                         CFRunLoopSourceContext *context);
void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);
void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source);
void CFRunLoopSourceSignal(CFRunLoopSourceRef source);

#ifdef __cplusplus
}
#endif
