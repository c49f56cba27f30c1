// An error that the platform reported, or that the helper raises in the platform's style.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace palaver {

// Travels as a value across platform callbacks (std::optional<PlatformError>) and as an exception inside the
// helper. what() is always the localized description, the only part that reaches the host. No
// std::runtime_error, whose copies share their text by atomics inside the C++ library, where the thread
// sanitizer does not see them.
class PlatformError : public std::exception {
 public:
  PlatformError(std::string domain, long code, std::string localizedDescription)
      : domain_(std::move(domain)), code_(code), localizedDescription_(std::move(localizedDescription)) {}

  const char* what() const noexcept override { return localizedDescription_.c_str(); }
  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  const std::string& localizedDescription() const { return localizedDescription_; }

 private:
  std::string domain_;
  long code_;
  std::string localizedDescription_;
};

}  // namespace palaver
