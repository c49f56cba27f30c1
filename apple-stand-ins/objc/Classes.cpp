// Registers classes, selectors and methods when the program is loaded. They are constant afterwards.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "apple-stand-ins/objc/Runtime.h"

namespace palaver::objc {

struct MethodTable {
  std::unordered_map<Selector, Implementation> methods;
};

}  // namespace palaver::objc

using namespace palaver::objc;

extern "C" {
// Section bounds from the linker. Null when the program lacks the section.
extern Selector __start_objc_selrefs[] __attribute__((weak));
extern Selector __stop_objc_selrefs[] __attribute__((weak));
extern Class* __start_objc_classlist[] __attribute__((weak));
extern Class* __stop_objc_classlist[] __attribute__((weak));
extern Category* __start_objc_catlist[] __attribute__((weak));
extern Category* __stop_objc_catlist[] __attribute__((weak));

void* _objc_empty_cache[2];
}

namespace palaver::objc {

namespace {

void addMethods(Class& to, List<Method>* methods) {
  if (!methods) return;
  for (auto& method : *methods) to.table->methods[registerSelector(method.selector)] = method.implementation;
}

bool isLoaded(const Class& which) {
  return which.table && static_cast<void*>(which.table) != static_cast<void*>(_objc_empty_cache);
}

// The compiler places instance variables after those it knows of the superclass. This moves them after the
// superclass's actual variables.
void placeVariables(Class& of) {
  constexpr std::uint32_t alignment = 16;
  auto& data = *of.data;
  if (!of.superclass || of.superclass->data->instanceSize <= data.instanceStart) return;
  const std::uint32_t missing = of.superclass->data->instanceSize - data.instanceStart;
  const std::uint32_t moved = (missing + alignment - 1) / alignment * alignment;
  if (data.variables)
    for (auto& variable : *data.variables)
      if (variable.offset) *variable.offset += static_cast<std::int32_t>(moved);
  data.instanceStart += moved;
  data.instanceSize += moved;
}

void load(Class* which) {
  if (!which || isLoaded(*which)) return;
  load(which->superclass);
  which->table = new MethodTable;  // lives until the program ends, like the class
  addMethods(*which, which->data->methods);
  if (which->data->flags & ClassData::metaclass) return;
  placeVariables(*which);
  load(which->isa);
}

// Runs before all other constructors, which may send messages.
__attribute__((constructor(101))) void loadProgram() {
  for (auto* selector = __start_objc_selrefs; selector < __stop_objc_selrefs; ++selector)
    *selector = registerSelector(*selector);
  for (auto* which = __start_objc_classlist; which < __stop_objc_classlist; ++which) load(*which);
  for (auto* which = __start_objc_catlist; which < __stop_objc_catlist; ++which) {
    addMethods(*(*which)->extended, (*which)->instanceMethods);
    addMethods(*(*which)->extended->isa, (*which)->classMethods);
  }
}

}  // namespace

Selector registerSelector(const char* name) {
  static auto* const names = new std::unordered_set<std::string>;
  return names->insert(name).first->c_str();
}

Implementation find(const Class* receiver, Selector selector) {
  for (; receiver; receiver = receiver->superclass) {
    const auto found = receiver->table->methods.find(selector);
    if (found != receiver->table->methods.end()) return found->second;
  }
  return nullptr;
}

bool isKindOf(const Object* object, const Class* wanted) {
  const Class* which = object->isa;
  while (which && which != wanted) which = which->superclass;
  return which;
}

void impersonate(void* memory, const Class* as) {
  std::memcpy(memory, as, sizeof *as);
}

}  // namespace palaver::objc

extern "C" {

// Looks up a method for the message functions in assembly.
Implementation palaver_objc_method(const Class* receiver, Selector selector) {
  if (const auto method = find(receiver, selector)) return method;
  std::fprintf(stderr, "%c[%s %s]: no such method\n",
               receiver->data->flags & ClassData::metaclass ? '+' : '-', receiver->data->name, selector);
  std::abort();
}

Selector sel_registerName(const char* name) {
  return registerSelector(name);
}

// Entry points that the compiler calls instead of sending common messages.

Object* objc_alloc(Class* of) {
  static const auto selector = registerSelector("alloc");
  return of ? send(of, selector) : nullptr;
}

Object* objc_alloc_init(Class* of) {
  static const auto selector = registerSelector("init");
  auto* const object = objc_alloc(of);
  return object ? send(object, selector) : nullptr;
}

Object* objc_opt_new(Class* of) {
  return objc_alloc_init(of);
}

Object* objc_opt_self(Object* object) {
  return object;
}

Class* objc_opt_class(Object* object) {
  static const auto selector = registerSelector("class");
  return object ? send<Class*>(object, selector) : nullptr;
}

bool objc_opt_isKindOfClass(Object* object, Class* wanted) {
  return object && isKindOf(object, wanted);
}

bool objc_opt_respondsToSelector(Object* object, Selector selector) {
  return object && find(object->isa, selector);
}
}
