// An error that the platform reported, or that the helper raises in the platform's style.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace palaver {

// Travels as a value across platform callbacks (std::optional<PlatformError>) and as an exception inside the
// helper. what() is always the localized description, the only part that reaches the host.
class PlatformError : public std::runtime_error {
 public:
  PlatformError(std::string domain, long code, const std::string& localizedDescription)
      : std::runtime_error(localizedDescription), domain_(std::move(domain)), code_(code) {}

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  std::string localizedDescription() const { return what(); }

 private:
  std::string domain_;
  long code_;
};

}  // namespace palaver
