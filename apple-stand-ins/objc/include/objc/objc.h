// Defines the basic types of Objective-C as on x86-64 macOS, for systems without them.
#pragma once

#ifdef __OBJC__
typedef struct objc_selector *SEL;
#endif

typedef signed char BOOL;  // the type of clang's literals on this architecture
#define YES __objc_yes
#define NO __objc_no
typedef long NSInteger;
typedef unsigned long NSUInteger;

#ifndef nil
#define nil nullptr
#endif
