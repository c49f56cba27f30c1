// Implements enough of Apple's Objective-C runtime on x86-64 Linux to run sources that clang compiles with
// -fobjc-runtime=macosx and ARC. For tests only. Reads the metadata of the program itself (no shared
// libraries) once, before main.
//
// Stricter than Apple's runtime to expose errors: an unknown method and an autorelease without a pool end the
// process. Not supported: protocols, associated objects, forwarding, and weak references to constant strings
// and blocks.
//
// Any thread.
#pragma once

#include <cstddef>

#include "apple-stand-ins/objc/Metadata.h"

namespace palaver::objc {

Selector registerSelector(const char* name);

// Returns null when neither the class nor a superclass has the method.
Implementation find(const Class* receiver, Selector selector);

bool isKindOf(const Object* object, const Class* wanted);

// Create and destroy objects for a root class. A new object has one reference and constructed C++ variables.
Object* allocate(Class* of);
void destroy(Object* object);
Object* retain(Object* object);
// Sends "dealloc" on the last release.
void release(Object* object);
std::size_t referenceCount(const Object* object);

// Returns the number of objects whose class is `of` or a subclass.
std::size_t liveObjects(const Class* of);

// Turns foreign memory into a class object: the isa of blocks and of constant strings, which other libraries
// define.
void impersonate(void* memory, const Class* as);

template <typename Result = Object*, typename... Arguments>
Result send(void* receiver, Selector selector, Arguments... arguments) {
  using Function = Result (*)(void*, Selector, Arguments...);
  return reinterpret_cast<Function>(find(static_cast<Object*>(receiver)->isa, selector))(receiver, selector,
                                                                                         arguments...);
}

}  // namespace palaver::objc

// Declares the part of the compiler's interface that is also called here. Source: clang's documentation of
// Automatic Reference Counting, "Runtime support".
extern "C" {
palaver::objc::Object* objc_retain(palaver::objc::Object* object);
void objc_release(palaver::objc::Object* object);
palaver::objc::Object* objc_autorelease(palaver::objc::Object* object);
}
