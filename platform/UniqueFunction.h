// Holds a callable that can be moved but not copied. std::move_only_function of C++23, which the compilers in
// use lack.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace palaver {

template <typename Signature>
class UniqueFunction;

// Calling an empty function is undefined. One heap allocation per callable.
template <typename Result, typename... Arguments>
class UniqueFunction<Result(Arguments...)> {
 public:
  UniqueFunction() = default;
  UniqueFunction(std::nullptr_t) {}
  template <typename Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, UniqueFunction> &&
           std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
      // The constraint keeps it from hiding the move constructor.
      // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
      UniqueFunction(Callable&& callable)
      : target_(std::make_unique<Holder<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {}

  Result operator()(Arguments... arguments) const {
    return target_->call(std::forward<Arguments>(arguments)...);
  }

  explicit operator bool() const { return target_ != nullptr; }

 private:
  struct Target {
    Target() = default;
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;
    virtual ~Target() = default;
    virtual Result call(Arguments... arguments) = 0;
  };
  template <typename Callable>
  struct Holder final : Target {
    explicit Holder(Callable value) : callable(std::move(value)) {}
    Result call(Arguments... arguments) override { return callable(std::forward<Arguments>(arguments)...); }
    Callable callable;
  };

  std::unique_ptr<Target> target_;
};

}  // namespace palaver
