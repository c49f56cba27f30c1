// Represents an error that the platform reported, or that the helper raises in the platform's style.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace palaver {

// Passed as a value across platform callbacks (std::optional<PlatformError>) and thrown as an exception
// inside the helper. what() is always the localized description, the only part that reaches the host.
//
// Not derived from std::runtime_error: its copies share their text through atomics inside the C++ library,
// which the thread sanitizer cannot see.
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
