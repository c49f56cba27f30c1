// Defines the class metadata that clang emits for Apple's 64-bit runtime. Source of the layouts: clang's code
// generator (lib/CodeGen/CGObjCMac.cpp, "ABI version 2").
#pragma once

#include <cstdint>

namespace palaver::objc {

struct MethodTable;

using Implementation = void (*)();
// Identifies a selector by the address of its name. Equal names have one address after registerSelector().
using Selector = const char*;

struct Method {
  Selector selector;
  const char* types;
  Implementation implementation;
};

template <typename Entry>
struct List {
  std::uint32_t entrySize;
  std::uint32_t count;
  Entry entries[1];  // variable length

  Entry* begin() { return entries; }
  Entry* end() { return entries + count; }
};

struct InstanceVariable {
  std::int32_t* offset;  // from the start of the object, bytes
  const char* name;
  const char* type;
  std::uint32_t alignment;  // base-2 logarithm
  std::uint32_t size;
};

struct ClassData {
  static constexpr std::uint32_t metaclass = 1;  // a bit of flags

  std::uint32_t flags;
  std::uint32_t instanceStart;  // offset of the class's own variables, as the compiler assumed
  std::uint32_t instanceSize;
  std::uint32_t reserved;
  const std::uint8_t* strongLayout;
  const char* name;
  List<Method>* methods;
  void* protocols;
  List<InstanceVariable>* variables;
  const std::uint8_t* weakLayout;
  void* properties;
};

struct Class {
  Class* isa;
  Class* superclass;
  MethodTable* table;  // the compiler stores the address of _objc_empty_cache here
  void* reserved;
  ClassData* data;
};

struct Object {
  Class* isa;
};

struct Category {
  const char* name;
  Class* extended;
  List<Method>* instanceMethods;
  List<Method>* classMethods;
  void* protocols;
  void* properties;
};

}  // namespace palaver::objc
