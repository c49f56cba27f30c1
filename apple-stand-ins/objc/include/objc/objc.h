// The basic types of Objective-C as on x86-64 macOS, for systems that have none.
#pragma once

#ifdef __OBJC__
typedef struct objc_selector *SEL;
#endif

typedef signed char BOOL;  // what clang gives its literals on this architecture
#define YES __objc_yes
#define NO __objc_no
typedef long NSInteger;
typedef unsigned long NSUInteger;

#ifndef nil
#define nil nullptr
#endif
