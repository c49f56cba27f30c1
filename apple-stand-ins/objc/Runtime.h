// A small Objective-C runtime for x86-64 Linux: enough of Apple's to run sources that clang compiles with
// -fobjc-runtime=macosx and ARC, for tests only. It reads the metadata of the program itself (no shared
// libraries), once, before main.
//
// Stricter than Apple's where that finds mistakes: an unknown method and an object autoreleased without a
// pool end the process. Left out: protocols, associated objects, forwarding, and weak references to constant
// strings and blocks.
//
// Threads: everything may be called on any thread.
#pragma once

#include <cstddef>

#include "apple-stand-ins/objc/Metadata.h"

namespace palaver::objc {

Selector registerSelector(const char* name);

// Null when neither the class nor a superclass has the method.
Implementation find(const Class* receiver, Selector selector);

bool isKindOf(const Object* object, const Class* wanted);

// What a root class is made of. A new object has one reference; its C++ variables have been constructed.
Object* allocate(Class* of);
void destroy(Object* object);
Object* retain(Object* object);
// Sends "dealloc" when that was the last reference.
void release(Object* object);
std::size_t referenceCount(const Object* object);

// Objects in existence whose class is `of` or a subclass.
std::size_t liveObjects(const Class* of);

// Makes a class object of foreign memory: the isa of blocks and of constant strings, which others define.
void impersonate(void* memory, const Class* as);

template <typename Result = Object*, typename... Arguments>
Result send(void* receiver, Selector selector, Arguments... arguments) {
  using Function = Result (*)(void*, Selector, Arguments...);
  return reinterpret_cast<Function>(find(static_cast<Object*>(receiver)->isa, selector))(receiver, selector,
                                                                                         arguments...);
}

}  // namespace palaver::objc

// The part of the compiler's interface that is also called from here. Source: clang's documentation of
// Automatic Reference Counting, "Runtime support".
extern "C" {
palaver::objc::Object* objc_retain(palaver::objc::Object* object);
void objc_release(palaver::objc::Object* object);
palaver::objc::Object* objc_autorelease(palaver::objc::Object* object);
}
