// Throws and catches Objective-C objects as C++ exceptions. Handlers match by the class of the object, not by
// the C++ type.
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "apple-stand-ins/objc/Runtime.h"

using namespace palaver::objc;

extern "C" {
// Interface of the C++ runtime. Source: Itanium C++ ABI, Exception Handling.
int __gxx_personality_v0(int version, int actions, std::uint64_t exceptionClass, void* exception,
                         void* context);
void* __cxa_begin_catch(void* exception) noexcept;
void __cxa_end_catch();
[[noreturn]] void __cxa_rethrow();
void* __cxa_allocate_exception(std::size_t size) noexcept;
[[noreturn]] void __cxa_throw(void* thrown, std::type_info* type, void (*destroy)(void*));

// Virtual function table of the type descriptors that the compiler emits for caught classes. The compiler
// refers to it two words after this symbol, as for any C++ object.
void* objc_ehtype_vtable[16];
}

namespace {

// Layout as emitted by the compiler: virtual functions, name, class.
class CaughtType final : public std::type_info {
 public:
  CaughtType(const char* name, Class* caught) : std::type_info(name), caught_(caught) {}

  // Called on the handler's type with the thrown type.
  bool __do_catch(const std::type_info* thrown, void** value, unsigned) const override {
    if (!dynamic_cast<const CaughtType*>(thrown)) return false;
    auto* const object = **reinterpret_cast<Object***>(value);
    if (!isKindOf(object, caught_)) return false;
    *value = object;
    return true;
  }

 private:
  Class* caught_;
};

CaughtType& thrownType() {
  static auto* const type = new CaughtType("Objective-C object", nullptr);
  return *type;
}

__attribute__((constructor(102))) void prepare() {
  constexpr std::size_t words = 8;  // offset to the top, type, and the six virtual functions of type_info
  void** const functions = *reinterpret_cast<void***>(&thrownType());
  std::memcpy(static_cast<void*>(objc_ehtype_vtable), static_cast<void*>(functions - 2),
              words * sizeof(void*));
}

}  // namespace

extern "C" {

int __objc_personality_v0(int version, int actions, std::uint64_t exceptionClass, void* exception,
                          void* context) {
  return __gxx_personality_v0(version, actions, exceptionClass, exception, context);
}

[[noreturn]] void objc_exception_throw(Object* object) {
  auto** const thrown = static_cast<Object**>(__cxa_allocate_exception(sizeof object));
  *thrown = objc_retain(object);
  __cxa_throw(thrown, &thrownType(), [](void* value) { objc_release(*static_cast<Object**>(value)); });
}

void* objc_begin_catch(void* exception) {
  return __cxa_begin_catch(exception);
}

void objc_end_catch() {
  __cxa_end_catch();
}

[[noreturn]] void objc_exception_rethrow() {
  __cxa_rethrow();
}

[[noreturn]] void objc_terminate() {
  std::abort();
}
}
