// The error of a folder that holds no usable model.
#pragma once

#include <stdexcept>

namespace palaver {

// Why a folder cannot work, as one sentence for people that names the file or key.
class UnusableModel : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace palaver
