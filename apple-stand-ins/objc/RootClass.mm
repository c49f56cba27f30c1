// Implements NSObject and the classes of blocks. Compiled without ARC.
#import <objc/NSObject.h>

#include <Block.h>

#include "apple-stand-ins/objc/Runtime.h"

// Declares the methods that ARC reserves.
@interface NSObject (ReferenceCounting)
- (instancetype)retain;
- (oneway void)release;
- (instancetype)autorelease;
- (NSUInteger)retainCount;
- (id)copy;
- (id)copyWithZone:(struct _NSZone *)zone;
@end

namespace {

palaver::objc::Object *object(id which) { return reinterpret_cast<palaver::objc::Object *>(which); }

palaver::objc::Class *classOf(Class which) { return reinterpret_cast<palaver::objc::Class *>(which); }

}  // namespace

@implementation NSObject
+ (instancetype)alloc {
  return reinterpret_cast<id>(palaver::objc::allocate(classOf(self)));
}
+ (instancetype)new {
  return [[self alloc] init];
}
+ (Class)class {
  return self;
}
// Classes are not reference-counted.
+ (instancetype)retain {
  return reinterpret_cast<id>(self);
}
+ (void)release {
}
- (instancetype)init {
  return self;
}
- (void)dealloc {
  palaver::objc::destroy(object(self));
}
- (BOOL)isEqual:(id)other {
  return self == other;
}
- (NSUInteger)hash {
  return reinterpret_cast<NSUInteger>(self);
}
- (Class)class {
  return reinterpret_cast<Class>(object(self)->isa);
}
- (BOOL)isKindOfClass:(Class)which {
  return palaver::objc::isKindOf(object(self), classOf(which));
}
- (BOOL)respondsToSelector:(SEL)selector {
  return palaver::objc::find(object(self)->isa, reinterpret_cast<palaver::objc::Selector>(selector)) !=
         nullptr;
}
- (instancetype)retain {
  return reinterpret_cast<id>(palaver::objc::retain(object(self)));
}
- (oneway void)release {
  palaver::objc::release(object(self));
}
- (instancetype)autorelease {
  return reinterpret_cast<id>(objc_autorelease(object(self)));
}
- (NSUInteger)retainCount {
  return palaver::objc::referenceCount(object(self));
}
- (id)copy {
  return [self copyWithZone:nullptr];
}
// Correct for immutable objects. Other classes override it.
- (id)copyWithZone:(struct _NSZone *)zone {
  (void)zone;
  return [self retain];
}
@end

// Answers messages to blocks. The real Blocks runtime counts their references.
@interface PalaverBlock : NSObject
@end

@implementation PalaverBlock
- (instancetype)retain {
  return static_cast<id>(Block_copy(reinterpret_cast<const void *>(self)));
}
- (oneway void)release {
  Block_release(reinterpret_cast<const void *>(self));
}
- (id)copy {
  return [self retain];
}
@end

// A block on the stack lives only as long as its function, regardless of retains. A copy outlives it.
@interface PalaverStackBlock : PalaverBlock
@end

@implementation PalaverStackBlock
- (instancetype)retain {
  return self;
}
- (oneway void)release {
}
- (id)copy {
  return static_cast<id>(Block_copy(reinterpret_cast<const void *>(self)));
}
@end

extern "C" {

// Defines the classes of the three kinds of blocks and the functions that the Blocks runtime calls for
// captured objects. Source: compiler-rt's and libdispatch's BlocksRuntime, Block_private.h.
extern void *_NSConcreteStackBlock[32];
extern void *_NSConcreteMallocBlock[32];
extern void *_NSConcreteGlobalBlock[32];
struct Block_callbacks_RR {
  unsigned long size;
  void (*retain)(const void *object);
  void (*release)(const void *object);
  void (*destructInstance)(const void *block);
};
void _Block_use_RR2(const Block_callbacks_RR *callbacks);

palaver::objc::Object *objc_retainBlock(palaver::objc::Object *block) {
  return static_cast<palaver::objc::Object *>(
      const_cast<void *>(Block_copy(static_cast<const void *>(block))));
}
}

// Runs after the classes have been loaded.
__attribute__((constructor(103))) static void makeBlocksObjects() {
  palaver::objc::impersonate(_NSConcreteStackBlock, classOf([PalaverStackBlock class]));
  palaver::objc::impersonate(_NSConcreteMallocBlock, classOf([PalaverBlock class]));
  palaver::objc::impersonate(_NSConcreteGlobalBlock, classOf([PalaverBlock class]));
  static const Block_callbacks_RR callbacks{
      sizeof callbacks,
      [](const void *held) { objc_retain(static_cast<palaver::objc::Object *>(const_cast<void *>(held))); },
      [](const void *held) { objc_release(static_cast<palaver::objc::Object *>(const_cast<void *>(held))); },
      [](const void *) {}};
  _Block_use_RR2(&callbacks);
}
