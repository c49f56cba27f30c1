// Implements reference counting, weak references, autorelease pools and properties.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "apple-stand-ins/objc/Runtime.h"

using namespace palaver::objc;

namespace palaver::objc {

namespace {

// Precedes each object. Its size keeps objects aligned as malloc does.
struct alignas(16) Header {
  std::atomic<std::size_t> references{1};
  std::atomic<bool> isWeaklyReferenced{false};
  bool isGoing = false;  // being destroyed; guarded by the weak references' lock
};

Header& headerOf(const Object* object) {
  return reinterpret_cast<Header*>(const_cast<Object*>(object))[-1];
}

// Maps each object to the addresses of the weak variables that refer to it.
struct WeakReferences {
  std::recursive_mutex lock;  // recursive: retaining a weakly referenced object sends it a message
  std::unordered_map<Object*, std::vector<Object**>> variables;

  static WeakReferences& all() {
    static auto* const references = new WeakReferences;
    return *references;
  }
};

// Counts the objects of each class.
struct LiveObjects {
  std::mutex lock;
  std::map<const Class*, std::size_t> counts;

  static LiveObjects& all() {
    static auto* const objects = new LiveObjects;
    return *objects;
  }
};

// Calls the method on each class that defines it, starting or ending with the root class.
template <typename Function>
void sendToEachClass(Object* object, Selector selector, bool rootFirst) {
  std::vector<Implementation> methods;
  for (const Class* which = object->isa; which; which = which->superclass) {
    const auto method = find(which, selector);
    if (method && (!which->superclass || find(which->superclass, selector) != method))
      methods.push_back(method);
  }
  if (rootFirst) std::reverse(methods.begin(), methods.end());
  for (const auto method : methods) reinterpret_cast<Function>(method)(object, selector);
}

// Objects of the innermost pool are at the end.
struct Pools {
  std::vector<Object*> objects;
  std::size_t depth = 0;

  static Pools& ofThread() {
    thread_local Pools pools;
    return pools;
  }
};

Object** propertyAt(Object* object, std::ptrdiff_t offset) {
  return reinterpret_cast<Object**>(reinterpret_cast<char*>(object) + offset);
}

std::mutex& propertiesLock() {
  static auto* const lock = new std::mutex;
  return *lock;
}

void setProperty(Object* object, std::ptrdiff_t offset, Object* value, bool copies) {
  static const auto copy = registerSelector("copy");
  if (value) value = copies ? send(value, copy) : objc_retain(value);
  Object* old = nullptr;
  {
    const std::lock_guard guard(propertiesLock());
    old = std::exchange(*propertyAt(object, offset), value);
  }
  objc_release(old);
}

}  // namespace

Object* allocate(Class* of) {
  static const auto construct = registerSelector(".cxx_construct");
  void* const memory = std::calloc(1, sizeof(Header) + of->data->instanceSize);
  if (!memory) std::abort();
  auto* const object = reinterpret_cast<Object*>(new (memory) Header + 1);
  object->isa = of;
  {
    const std::lock_guard guard(LiveObjects::all().lock);
    ++LiveObjects::all().counts[of];
  }
  sendToEachClass<Object* (*)(Object*, Selector)>(object, construct, true);
  return object;
}

void destroy(Object* object) {
  static const auto destruct = registerSelector(".cxx_destruct");
  sendToEachClass<void (*)(Object*, Selector)>(object, destruct, false);
  {
    const std::lock_guard guard(LiveObjects::all().lock);
    --LiveObjects::all().counts[object->isa];
  }
  std::free(&headerOf(object));
}

Object* retain(Object* object) {
  headerOf(object).references.fetch_add(1, std::memory_order_relaxed);
  return object;
}

void release(Object* object) {
  static const auto dealloc = registerSelector("dealloc");
  auto& header = headerOf(object);
  if (header.isWeaklyReferenced.load(std::memory_order_acquire)) {
    // No weak reference may be loaded between the last release and its clearing.
    auto& weak = WeakReferences::all();
    const std::lock_guard guard(weak.lock);
    if (header.references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    header.isGoing = true;
    if (const auto found = weak.variables.find(object); found != weak.variables.end()) {
      for (auto* const variable : found->second) *variable = nullptr;
      weak.variables.erase(found);
    }
  } else if (header.references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  send<void>(object, dealloc);
}

std::size_t referenceCount(const Object* object) {
  return headerOf(object).references.load(std::memory_order_relaxed);
}

std::size_t liveObjects(const Class* of) {
  const std::lock_guard guard(LiveObjects::all().lock);
  std::size_t count = 0;
  for (const auto& [which, objects] : LiveObjects::all().counts) {
    const Class* ancestor = which;
    while (ancestor && ancestor != of) ancestor = ancestor->superclass;
    if (ancestor) count += objects;
  }
  return count;
}

}  // namespace palaver::objc

extern "C" {

// References

Object* objc_retain(Object* object) {
  static const auto selector = registerSelector("retain");
  return object ? send(object, selector) : nullptr;
}

void objc_release(Object* object) {
  static const auto selector = registerSelector("release");
  if (object) send<void>(object, selector);
}

void objc_storeStrong(Object** variable, Object* value) {
  objc_retain(value);
  objc_release(std::exchange(*variable, value));
}

// Autorelease pools

void* objc_autoreleasePoolPush() {
  auto& pools = Pools::ofThread();
  ++pools.depth;
  return reinterpret_cast<void*>(pools.objects.size() + 1);  // never null
}

void objc_autoreleasePoolPop(void* pool) {
  auto& pools = Pools::ofThread();
  const auto kept = reinterpret_cast<std::size_t>(pool) - 1;
  while (pools.objects.size() > kept) {
    auto* const object = pools.objects.back();
    pools.objects.pop_back();
    objc_release(object);
  }
  --pools.depth;
}

Object* objc_autorelease(Object* object) {
  if (!object) return nullptr;
  auto& pools = Pools::ofThread();
  if (pools.depth == 0) {
    std::fprintf(stderr, "An object of class %s is autoreleased without a pool: it would leak\n",
                 object->isa->data->name);
    std::abort();
  }
  pools.objects.push_back(object);
  return object;
}

Object* objc_autoreleaseReturnValue(Object* object) {
  return objc_autorelease(object);
}
Object* objc_retainAutorelease(Object* object) {
  return objc_autorelease(objc_retain(object));
}
Object* objc_retainAutoreleaseReturnValue(Object* object) {
  return objc_retainAutorelease(object);
}
Object* objc_retainAutoreleasedReturnValue(Object* object) {
  return objc_retain(object);
}
Object* objc_unsafeClaimAutoreleasedReturnValue(Object* object) {
  return object;
}

// Weak references

Object* objc_storeWeak(Object** variable, Object* value) {
  auto& weak = WeakReferences::all();
  const std::lock_guard guard(weak.lock);
  if (*variable) std::erase(weak.variables[*variable], variable);
  if (value && headerOf(value).isGoing) value = nullptr;
  *variable = value;
  if (value) {
    headerOf(value).isWeaklyReferenced.store(true, std::memory_order_release);
    weak.variables[value].push_back(variable);
  }
  return value;
}

Object* objc_initWeak(Object** variable, Object* value) {
  *variable = nullptr;
  return objc_storeWeak(variable, value);
}

void objc_destroyWeak(Object** variable) {
  objc_storeWeak(variable, nullptr);
}

Object* objc_loadWeakRetained(Object** variable) {
  const std::lock_guard guard(WeakReferences::all().lock);
  return objc_retain(*variable);
}

Object* objc_loadWeak(Object** variable) {
  return objc_autorelease(objc_loadWeakRetained(variable));
}

void objc_copyWeak(Object** to, Object** from) {
  const std::lock_guard guard(WeakReferences::all().lock);
  objc_initWeak(to, *from);
}

void objc_moveWeak(Object** to, Object** from) {
  const std::lock_guard guard(WeakReferences::all().lock);
  objc_initWeak(to, *from);
  objc_destroyWeak(from);
}

// Properties

Object* objc_getProperty(Object* object, Selector, std::ptrdiff_t offset, bool) {
  const std::lock_guard guard(propertiesLock());
  return objc_retainAutorelease(*propertyAt(object, offset));
}

void objc_setProperty_nonatomic(Object* object, Selector, Object* value, std::ptrdiff_t offset) {
  setProperty(object, offset, value, false);
}
void objc_setProperty_atomic(Object* object, Selector, Object* value, std::ptrdiff_t offset) {
  setProperty(object, offset, value, false);
}
void objc_setProperty_nonatomic_copy(Object* object, Selector, Object* value, std::ptrdiff_t offset) {
  setProperty(object, offset, value, true);
}
void objc_setProperty_atomic_copy(Object* object, Selector, Object* value, std::ptrdiff_t offset) {
  setProperty(object, offset, value, true);
}

// Called when a collection changed during enumeration.
[[noreturn]] void objc_enumerationMutation(Object* collection) {
  std::fprintf(stderr, "An object of class %s changed while it was enumerated\n",
               collection->isa->data->name);
  std::abort();
}
}
